// tav_eml_pop3_boundary.h - the interface for receiving mail.

#ifndef TAV_EML_POP3_BOUNDARY_H
#define TAV_EML_POP3_BOUNDARY_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "quorvelmida/tav_eml_pop3_mail_info.h"
#include "quorvelmida/tav_eml_pop3_mail_info_list.h"
#include "quorvelmida/tav_eml_pop3_receive_mail.h"
#include "quorvelmida/tav_eml_pop3_settings.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"
#include "utl_object.h"

namespace quorvelmida {

// One account: connects, finds new messages, reads and deletes them.
//
//   connect_mail
//   stat(count)                             do not list a mailbox without messages
//   list(seen, keep)                        then, for each message:
//     seen.search_next_mail(info)             the next message; 0 if there is none
//     list_next(seen, info)                   marks it as handed out; call it before reading, so
//                                             that a message that breaks the connection is not read
//                                             again and again
//     receive_header(mail)
//     ... its body or its parts, see below
//     delete_mail(mail)                       to delete it
//   close_mail                              the server deletes now
//
// The sequences for the three shapes of a message:
//
//   single part              two parts                   a multipart/alternative inside
//
//   receive_header           receive_header              receive_header
//   receive_body       (1)   set_part(new part)          set_part(new part)
//   mail.get_buffer    (2)   receive_part_header         receive_part_header    its first part
//   ... until                receive_part_body     (1)   receive_part_body
//   mail.m_nComplete         part.get_buffer       (2)   ... until part.m_nComplete
//                            ... until                   set_part(new part)
//                            part.m_nComplete            receive_part_header    its second part
//                            set_part(new part)          ...
//                            ... while                   set_part(new part)
//                            mail.m_nReceiving           receive_part_header    the outer's next;
//                                                        ... while              if there is none,
//                                                        mail.m_nReceiving      complete (3)
//
// (1) decodes one block of about 4096 encoded bytes. TAV_EML_ERR_UNKNOWN on an open connection
// means that the block held no data or could not be used; the message can be read on.
// (2) the application frees what get_buffer returns with UtlOS::MemFree. Blocks that are not taken
// out add up. The mail owns its current part: set_part deletes the previous one.
// (3) the closing delimiter of a multipart that came last, or a part cut off in its header: the
// part holds nothing.
//
// skip_part and skip_mail read past unwanted data. After receive_header_only the message is
// finished; receive_header needs a new object. Read or skip a message to its end before any other
// command.
//
// Results are TAV_EML_OK or the code of the step that failed; every failure writes a line to the
// debug log. After the connection is lost, stat() and the commands within list() give
// TAV_EML_ERR_TRANSFER and everything else TAV_EML_ERR_NOT_CONNECTED; connect_mail connects anew.
// One thread uses the object at a time. Nothing is thrown.
class TAVEML_API tav_eml_pop3_boundary : public UtlObject {
 public:
  // `settings` is not owned and must outlive the object.
  tav_eml_pop3_boundary(const tav_eml_pop3_settings& settings);
  tav_eml_pop3_boundary(const tav_eml_pop3_boundary&) = delete;
  tav_eml_pop3_boundary& operator=(const tav_eml_pop3_boundary&) = delete;
  ~tav_eml_pop3_boundary() override;  // closes an open connection

  // Connects and logs in; tav_eml_pop3_command::connect_start lists the codes. TAV_EML_OK if
  // already connected.
  TAV_EML_RESULT connect_mail();

  // Sends QUIT and closes the connection. Always TAV_EML_OK.
  TAV_EML_RESULT close_mail();

  // Connects, logs in and disconnects.
  TAV_EML_RESULT test();

  // The number of messages in the mailbox.
  TAV_EML_RESULT stat(int& count);

  // Synchronises `list` with the server by unique id: removes the entries that are gone and adds
  // new messages as waiting while there is room.
  //
  // The result is that of the last UIDL. A server without UIDL refuses the first one, as any server
  // does for an empty mailbox; the connection is closed then, and the result is:
  // - for an empty mailbox, TAV_EML_ERR_REPLY; the list is emptied;
  // - with messages and `keep_on_no_uidl` 0, TAV_EML_ERR_TRANSFER; the list keeps its entries, but
  //   without message numbers;
  // - with messages and `keep_on_no_uidl` not 0, TAV_EML_ERR_TRANSFER if messages are numbered
  // above
  //   those of the list, otherwise TAV_EML_ERR_REPLY; all entries are marked as handed out.
  // If the connection is lost in the reply to a UIDL, the list keeps its entries and their status.
  TAV_EML_RESULT list(tav_eml_pop3_mail_info_list& list, int keep_on_no_uidl);

  // Marks `done` as handed out and adds the new messages for which there is now room.
  TAV_EML_RESULT list_next(tav_eml_pop3_mail_info_list& list, tav_eml_pop3_mail_info& done);

  // Mark a message as deleted on the server. The first two go by number. The third looks up the
  // unique id of `mail` in `list`, and succeeds without a command if it is not there. Do not use it
  // for a message without a unique id: it would delete the list's first one.
  TAV_EML_RESULT delete_mail(tav_eml_pop3_receive_mail& mail);
  TAV_EML_RESULT delete_mail(int number);
  TAV_EML_RESULT delete_mail_by_uid(tav_eml_pop3_mail_info_list& list,
                                    tav_eml_pop3_receive_mail& mail);

  // Every failure gives TAV_EML_ERR_NOT_CONNECTED.
  TAV_EML_RESULT noop();

  const tav_eml_mlutl_mail_address& ref_mail_address() const;  // the settings' address

  // Read the header alone (TOP), or the header of a message that is then read to its end (RETR).
  // The last argument is not used.
  TAV_EML_RESULT receive_header_only(tav_eml_pop3_receive_mail& mail, int);
  TAV_EML_RESULT receive_header(tav_eml_pop3_receive_mail& mail, int);

  // One step of the parser each; see tav_eml_mlutl_receive.
  TAV_EML_RESULT receive_body(tav_eml_pop3_receive_mail& mail);
  TAV_EML_RESULT receive_part_header(tav_eml_pop3_receive_mail& mail, int);
  TAV_EML_RESULT receive_part_body(tav_eml_pop3_receive_mail& mail);
  TAV_EML_RESULT skip_part(tav_eml_pop3_receive_mail& mail);
  // Unlike the others, this one returns the parser's own code.
  TAV_EML_UTL_RETCODE skip_mail(tav_eml_pop3_receive_mail& mail);

  // Converts a code of the parser to a result; TAV_EML_ERR_UNKNOWN for any other value.
  static TAV_EML_RESULT convert_utl_retcode(TAV_EML_UTL_RETCODE code);

 private:
  struct fill_texts;

  TAVEML_LOCAL bool is_connected() const;
  TAVEML_LOCAL bool is_complete() const;
  TAVEML_LOCAL unsigned int timeout() const;
  TAVEML_LOCAL TAV_EML_RESULT delete_number(int number, const char* operation, const char* called);
  TAVEML_LOCAL bool probe_uniq_id(int number, UtlString& uid, TAV_EML_RESULT& uidl);
  TAVEML_LOCAL TAV_EML_RESULT describe(int number, const fill_texts& texts,
                                       tav_eml_pop3_mail_info*& info, TAV_EML_RESULT& uidl);
  TAVEML_LOCAL TAV_EML_RESULT synchronise(tav_eml_pop3_mail_info_list& list, TAV_EML_RESULT& uidl);
  TAVEML_LOCAL TAV_EML_RESULT fill(tav_eml_pop3_mail_info_list& list, const fill_texts& texts,
                                   TAV_EML_RESULT& uidl);
  TAVEML_LOCAL TAV_EML_RESULT start_reading(tav_eml_pop3_receive_mail& mail, const char* operation);

  int m_nSock;
  int32_t m_nReserved;
  const tav_eml_pop3_settings* m_pPOP3Settings;
  int32_t m_nMailCount;
  TAV_EML_TLS_INFO* m_pTLSInfo;
  char* m_pReadBuffer;
  tav_eml_mlutl_receive* m_pReceive;
};

}  // namespace quorvelmida

#endif
