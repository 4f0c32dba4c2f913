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
//   mail.set_part(another), send_part_header(mail)  for each further attachment, and so on
//   close_mail(mail)                                or abort_mail at any point
//
// A piece of data may have any length: base64 groups are carried over between pieces. Do not call
// send_body without data: it fails.
//
// A message is sent if close_mail(mail) and every call before it return TAV_EML_OK. If an earlier
// call fails, the message is incomplete: call abort_mail, which makes the server discard it.
// close_mail would deliver the incomplete message. If close_mail(mail) itself returns
// TAV_EML_ERR_TRANSFER, TAV_EML_ERR_TRANSFER_TIMEOUT, TAV_EML_ERR_REPLY or TAV_EML_ERR_UNKNOWN, the
// server may have delivered the message, and sending it again may deliver it twice.
//
// The lock. connect_mail takes the object's lock and keeps it even if it fails. close_mail, and
// abort_mail with a session, release it. A second thread's connect_mail or test waits until then.
// After a failed connect_mail the same thread may call connect_mail again at once, because it
// already holds the lock, or release the lock with close_mail(), which then returns
// TAV_EML_ERR_UNKNOWN. abort_mail without a session does not release the lock.
//
// Results are TAV_EML_OK or the code of the step that failed; every failure writes a line to the
// debug log. Nothing is thrown.
class TAVEML_API tav_eml_smtp_boundary : public UtlObject {
 public:
  // `settings` is not owned and must outlive the object.
  tav_eml_smtp_boundary(const tav_eml_smtp_settings& settings);
  tav_eml_smtp_boundary(const tav_eml_smtp_boundary&) = delete;
  tav_eml_smtp_boundary& operator=(const tav_eml_smtp_boundary&) = delete;
  // Closes an open session without sending QUIT.
  ~tav_eml_smtp_boundary() override;

  // Connects and disconnects, under the lock.
  TAV_EML_RESULT test();

  TAV_EML_RESULT connect_mail();

  // Sends the envelope, DATA and the header. TAV_EML_ERR_PARAM, before MAIL FROM is sent: a value
  // with a line break that is not a fold, or a boundary that does not fit its line.
  // TAV_EML_ERR_UNKNOWN: the header cannot be composed; the recipients were sent already.
  TAV_EML_RESULT send_header(tav_eml_smtp_send_mail& mail);

  // Take the data out of the mail, or out of its attached part, and send it. With 7bit and 8bit the
  // data is sent as it is: pass whole lines. With base64 a body is UTF-8 text and is converted to
  // the mail's character set; a character split between two pieces fails. The same holds for a part
  // that is not an attachment; an attachment is not converted. Quoted-printable cannot be sent. A
  // body must follow send_header, a part body send_part_header; any other order gives
  // TAV_EML_ERR_UNKNOWN.
  TAV_EML_RESULT send_body(tav_eml_smtp_send_mail& mail);
  TAV_EML_RESULT send_part_header(tav_eml_smtp_send_mail& mail);
  TAV_EML_RESULT send_part_body(tav_eml_smtp_send_mail& mail);

  // End the message and the session and release the lock. The result is the code of a failed end of
  // data, otherwise that of QUIT: an error of QUIT alone means that the message was delivered. The
  // first form keeps the lock and the session if it fails before the end of data: call abort_mail.
  TAV_EML_RESULT close_mail(tav_eml_smtp_send_mail& mail);
  TAV_EML_RESULT close_mail();

  // Ends the session: with QUIT if no message is open, otherwise by closing the connection, so that
  // the server discards the message. Releases the lock if there was a session.
  TAV_EML_RESULT abort_mail();

  // Adds to this object's running total over all its messages. TAV_EML_ERR_SIZE_LIMIT once the
  // total reaches the size limit. Without a limit nothing is counted.
  TAV_EML_RESULT judge_size_of_data(unsigned long bytes);

  // Puts the carried bytes (up to 2) before `data` and carries the last bytes over, so that
  // `length` becomes a multiple of 3. `data` is a UtlOS block that may be replaced.
  TAV_EML_RESULT adjust_buff_len_m3(char*& data, long& length, int32_t& carry_count,
                                    uint8_t* carry_bytes);

 private:
  struct piece_texts;
  struct resources;

  TAVEML_LOCAL TAV_EML_RESULT send_piece(tav_eml_mlutl_mail_part& content, bool is_text,
                                         TAV_EML_CHAR_SET char_set, int32_t& carry_count,
                                         uint8_t* carry_bytes, const piece_texts& texts);
  TAVEML_LOCAL TAV_EML_RESULT send_base64(const utl_buffer& data, int32_t& carry_count,
                                          uint8_t* carry_bytes, const piece_texts& texts);
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
  resources* m_pResources;  // the lock, and memory that is kept while a message is sent
  int32_t m_nPartCarry;
  int32_t m_nBodyCarry;
  uint8_t m_aPartCarry[2];
  uint8_t m_aBodyCarry[2];
  uint32_t m_uBytesSent;
};

}  // namespace quorvelmida

#endif
