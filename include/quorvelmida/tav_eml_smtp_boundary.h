// tav_eml_smtp_boundary.h - the interface for sending mail.

#ifndef TAV_EML_SMTP_BOUNDARY_H
#define TAV_EML_SMTP_BOUNDARY_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "utl_object.h"
#include "utl_os.h"

namespace quorvelmida {

class utl_buffer;

// Sends one mail at a time:
//
//   connect_mail
//   send_header(mail)
//   mail.set_buffer ..., send_body(mail)            once or more
//   send_part_header(mail)                          for a mail with an attachment
//   part.set_buffer ..., send_part_body(mail)       once or more
//   close_mail(mail)                                or abort_mail at any point
//
// Every piece of data may be of any length: base64 groups are carried over between pieces. Without
// data send_body is not called: it fails. A mail is sent when close_mail(mail) returns TAV_EML_OK;
// when the connection breaks behind its last line it may have been delivered all the same, and to
// send it again may deliver it twice. After any other failure the mail is incomplete: call
// abort_mail, which makes the server discard it; close_mail would deliver it as it is.
//
// The lock. connect_mail takes the object's lock and keeps it, also when it fails; close_mail and
// abort_mail with a session release it. A second thread's connect_mail or test waits until then.
// After a failed connect_mail the same thread may call connect_mail again at once (it is granted
// the lock that it holds), or release it with close_mail(), which without a session does nothing
// else and returns TAV_EML_ERR_UNKNOWN; abort_mail without a session does not release it.
//
// Results are TAV_EML_OK or the code of the step that failed; every failure writes a line to the
// debug log. Nothing is thrown.
class TAVEML_API tav_eml_smtp_boundary : public UtlObject {
 public:
  // `settings` is not owned and must outlive the object.
  tav_eml_smtp_boundary(const tav_eml_smtp_settings& settings);
  tav_eml_smtp_boundary(const tav_eml_smtp_boundary&) = delete;
  tav_eml_smtp_boundary& operator=(const tav_eml_smtp_boundary&) = delete;
  // Drops an open session without a word to the server.
  ~tav_eml_smtp_boundary() override;

  // Connects and disconnects, under the lock.
  TAV_EML_RESULT test();

  TAV_EML_RESULT connect_mail();

  // Envelope, DATA and the header. TAV_EML_ERR_PARAM, before anything is sent, for a value with a
  // line break that is not a fold, and for a boundary that does not fit its line;
  // TAV_EML_ERR_UNKNOWN when the header cannot be composed.
  TAV_EML_RESULT send_header(tav_eml_smtp_send_mail& mail);

  // Sends the data that the mail, respectively its attached part, holds, and takes it out of it.
  // Transfer encodings 7bit and 8bit go as they are: hand over whole lines. base64 bodies are UTF-8
  // text, converted into the mail's character set; a character split between two pieces fails. A
  // part that is not an attachment is converted likewise, an attachment goes unchanged.
  // Quoted-printable is not sent. A body is sent after send_header, a part body after
  // send_part_header; anything else is TAV_EML_ERR_UNKNOWN.
  TAV_EML_RESULT send_body(tav_eml_smtp_send_mail& mail);
  TAV_EML_RESULT send_part_header(tav_eml_smtp_send_mail& mail);
  TAV_EML_RESULT send_part_body(tav_eml_smtp_send_mail& mail);

  // Ends the mail and the session and releases the lock. The code of a failed end of data comes
  // first, then that of QUIT.
  TAV_EML_RESULT close_mail(tav_eml_smtp_send_mail& mail);
  TAV_EML_RESULT close_mail();

  // Drops the session in whatever state it is: QUIT when no mail is open, otherwise the connection
  // is closed so that the server discards the mail. Releases the lock when there was a session.
  TAV_EML_RESULT abort_mail();

  // Adds to the running total of this object, over all its mails, and compares it with the size
  // limit: TAV_EML_ERR_SIZE_LIMIT once the total reaches it. Without a limit nothing is counted.
  TAV_EML_RESULT judge_size_of_data(unsigned long bytes);

  // Makes `length` a multiple of 3 with the help of up to 2 carried bytes. `data` is a UtlOS block
  // that may be replaced.
  TAV_EML_RESULT adjust_buff_len_m3(char*& data, long& length, int32_t& carry_count,
                                    uint8_t* carry_bytes);

 private:
  struct piece_texts;
  struct resources;

  TAVEML_LOCAL TAV_EML_RESULT send_piece(tav_eml_mlutl_mail_part& content,
                                         TAV_EML_CHAR_SET char_set, int32_t& carry_count,
                                         uint8_t* carry_bytes, const piece_texts& texts);
  TAVEML_LOCAL TAV_EML_RESULT send_base64(utl_buffer& data, TAV_EML_CHAR_SET char_set,
                                          int32_t& carry_count, uint8_t* carry_bytes,
                                          const piece_texts& texts);
  TAVEML_LOCAL UtlMutex* lock() const;
  TAVEML_LOCAL void free_block();
  TAVEML_LOCAL TAV_EML_RESULT flush_carries(const char* operation);
  TAVEML_LOCAL TAV_EML_RESULT flush_carry(const char* operation, const char* encode_step,
                                          int32_t& carry_count, const uint8_t* carry_bytes);
  TAVEML_LOCAL TAV_EML_RESULT send_delimiter(const char* operation, const char* caller,
                                             const UtlString& boundary, const char* end);
  TAVEML_LOCAL TAV_EML_RESULT judge_size(const char* operation, int64_t bytes);

  const tav_eml_smtp_settings* m_pSMTPSettings;
  ntssmtp_fileptr* m_pSession;
  resources* m_pResources;  // the lock, and memory that is kept while a mail is sent
  int32_t m_nPartCarry;
  int32_t m_nBodyCarry;
  uint8_t m_aPartCarry[2];
  uint8_t m_aBodyCarry[2];
  uint32_t m_uBytesSent;
};

}  // namespace quorvelmida

#endif
