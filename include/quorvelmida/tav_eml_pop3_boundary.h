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

// One account: connects, finds what is new, reads messages, deletes them.
//
//   connect_mail
//   stat(count)                             a mailbox without messages must not be listed
//   list(seen, keep)                        then, for each message:
//     seen.search_next_mail(info)             what to read; 0 when there is nothing
//     list_next(seen, info)                   handed out: before it is read, so that a message that
//                                             breaks the connection is not read for ever
//     receive_header(mail)
//     ... its body or its parts, see below
//     delete_mail(mail)                       when it is to go
//   close_mail                              deletions happen now
//
// The sequences for the three shapes of a mail:
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
// (1) decodes one block of at most 4096 encoded bytes; TAV_EML_ERR_UNKNOWN while the connection
// stands means that the block held no data, or could not be used: the mail can be read on.
// (2) the application owns what get_buffer hands out and frees it with UtlOS::MemFree; blocks that
// are not taken out add up. The mail owns its current part: set_part deletes the one before.
// (3) the trace of a multipart that came last, or a part cut off in its header: it holds nothing.
//
// skip_part and skip_mail read past what is not wanted. A mail that was read with
// receive_header_only is finished: a new object serves receive_header. A mail must be read to its
// end, or skipped, before any other command.
//
// Results are TAV_EML_OK or the code of the step that failed; every failure writes a line to the
// debug log. When the connection is lost, what follows gives TAV_EML_ERR_NOT_CONNECTED, or
// TAV_EML_ERR_TRANSFER from stat() and within list(), and connect_mail connects anew. One thread
// uses the object at a time. Nothing is thrown.
class TAVEML_API tav_eml_pop3_boundary : public UtlObject {
 public:
  // `settings` is not owned and must outlive the object.
  tav_eml_pop3_boundary(const tav_eml_pop3_settings& settings);
  tav_eml_pop3_boundary(const tav_eml_pop3_boundary&) = delete;
  tav_eml_pop3_boundary& operator=(const tav_eml_pop3_boundary&) = delete;
  ~tav_eml_pop3_boundary() override;  // closes an open connection

  // Connects and logs in (tav_eml_pop3_command::connect_start tells the codes). TAV_EML_OK when
  // connected already.
  TAV_EML_RESULT connect_mail();

  // QUIT, and closes the connection. Always TAV_EML_OK.
  TAV_EML_RESULT close_mail();

  // Connects, logs in and disconnects.
  TAV_EML_RESULT test();

  // The count of messages of the mailbox.
  TAV_EML_RESULT stat(int& count);

  // Brings `list` in line with the server by unique id: entries that are gone are removed, new
  // messages are added as waiting while there is room. The result is that of the last UIDL: a
  // server without it gives TAV_EML_ERR_REPLY and the connection is lost, and so does an empty
  // mailbox. With `keep_on_no_uidl` not 0, such a server leaves the entries alone and marks them as
  // handed out.
  TAV_EML_RESULT list(tav_eml_pop3_mail_info_list& list, int keep_on_no_uidl);

  // Marks `done` as handed out and adds new messages for which there is room now.
  TAV_EML_RESULT list_next(tav_eml_pop3_mail_info_list& list, tav_eml_pop3_mail_info& done);

  // Mark a message as deleted on the server, by number, and by unique id: the entry of `list` with
  // the unique id of `mail`, or none. A mail without unique id must not be deleted by it: it finds
  // the first entry.
  TAV_EML_RESULT delete_mail(tav_eml_pop3_receive_mail& mail);
  TAV_EML_RESULT delete_mail(int number);
  TAV_EML_RESULT delete_mail_by_uid(tav_eml_pop3_mail_info_list& list,
                                    tav_eml_pop3_receive_mail& mail);

  // TAV_EML_ERR_NOT_CONNECTED whatever failed.
  TAV_EML_RESULT noop();

  const tav_eml_mlutl_mail_address& ref_mail_address() const;  // that of the settings

  // The header alone (TOP), and the header of a mail that is read on (RETR). The last argument is
  // not used.
  TAV_EML_RESULT receive_header_only(tav_eml_pop3_receive_mail& mail, int);
  TAV_EML_RESULT receive_header(tav_eml_pop3_receive_mail& mail, int);

  // One step of the parser each (tav_eml_mlutl_receive tells what it does).
  TAV_EML_RESULT receive_body(tav_eml_pop3_receive_mail& mail);
  TAV_EML_RESULT receive_part_header(tav_eml_pop3_receive_mail& mail, int);
  TAV_EML_RESULT receive_part_body(tav_eml_pop3_receive_mail& mail);
  TAV_EML_RESULT skip_part(tav_eml_pop3_receive_mail& mail);
  // Unlike the others this one returns a code of the parser (TAV_EML_UTL_RETCODE) as it is.
  TAV_EML_UTL_RETCODE skip_mail(tav_eml_pop3_receive_mail& mail);

  // The parser's codes as results; TAV_EML_ERR_UNKNOWN for anything that is none.
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
