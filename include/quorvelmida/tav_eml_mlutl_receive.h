// tav_eml_mlutl_receive.h - the receive parser: reads one message from a POP3 connection.

#ifndef TAV_EML_MLUTL_RECEIVE_H
#define TAV_EML_MLUTL_RECEIVE_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail.h"
#include "quorvelmida/tav_eml_mlutl_stream.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"
#include "utl_object.h"
#include "utl_string.h"
#include "utl_vector.h"

namespace quorvelmida {

class message_walk;
struct line_buffer;

// Reads a message after RETR or TOP line by line (RFC 1939) and fills a tav_eml_mlutl_mail and its
// parts (RFC 5322, RFC 2045 to 2047, RFC 2231). The order for one message:
//
//   receive_header                       or receive_header_only after TOP
//   receive_body                         for a mail of a single part, until m_nComplete
//   set_part of a new part, receive_part_header, then receive_part_body until the part's
//   m_nComplete, or skip_part            for a multipart mail, while m_nReceiving
//   skip_mail                            instead of whatever is left
//
// Between messages flush_buffer. tav_eml_pop3_boundary drives it in this way.
//
// `sock` is the connection's handle, 0 for none. A transport failure, lasting silence or a line of
// 4095 bytes without end ends TLS, closes the connection and sets `sock` to 0. `timeout` is in
// seconds, for each wait. Every failure writes a line to the debug log.
//
// Bounds: a line has at most 4095 bytes, a header 256 KiB, a boundary 1000 bytes, and 100
// boundaries may be open; a header that is longer fails, a multipart beyond them is not entered.
// Data is handed on in blocks, whatever the size of the message. A message that has not ended after
// 2 GiB fails with TAV_EML_UTL_BAD_REPLY; a call that skips or drops may wait for each of its
// bytes. A NUL byte counts as a blank.
class TAVEML_API tav_eml_mlutl_receive : public UtlObject {
 public:
  tav_eml_mlutl_receive();
  tav_eml_mlutl_receive(const tav_eml_mlutl_receive&) = delete;
  tav_eml_mlutl_receive& operator=(const tav_eml_mlutl_receive&) = delete;
  ~tav_eml_mlutl_receive() override;

  // Reads the reply to TOP with 0 lines. The mail has been read to its end afterwards.
  // Results of the receive operations: TAV_EML_UTL_OK; TAV_EML_UTL_ERROR for a wrong order of calls
  // and for data that cannot be used; TAV_EML_UTL_NOT_CONNECTED; TAV_EML_UTL_BAD_REPLY for a line
  // that is too long; TAV_EML_UTL_NO_MEMORY; TAV_EML_UTL_RECV_ERROR, the connection is closed.
  TAV_EML_UTL_RETCODE receive_header_only(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                          TAV_EML_TLS_INFO& tls);

  // Reads the message's header. A failure of the connection gives TAV_EML_UTL_NOT_CONNECTED.
  // `limit`, in bytes, is compared but not enforced.
  TAV_EML_UTL_RETCODE receive_header(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                     unsigned long limit, TAV_EML_TLS_INFO& tls);

  // Reads a block of a single-part mail, at most 4096 encoded bytes that end at a line end, decodes
  // it and appends it to the mail's data: the application takes it out with get_buffer. A block
  // that decodes to nothing gives TAV_EML_UTL_ERROR; the mail can be read on.
  TAV_EML_UTL_RETCODE receive_body(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                   TAV_EML_TLS_INFO& tls);

  // Reads up to and including the header of the next leaf part into the mail's current part, which
  // must be a fresh one; multiparts on the way are entered or left. A part that is complete
  // straight afterwards holds nothing.
  TAV_EML_UTL_RETCODE receive_part_header(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                          TAV_EML_TLS_INFO& tls);

  // As receive_body, for the current part of a multipart mail. What follows the outermost multipart
  // is read and dropped with its last part. The line end in front of a delimiter is data.
  TAV_EML_UTL_RETCODE receive_part_body(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                        TAV_EML_TLS_INFO& tls);

  // Read and drop the rest of the message, respectively of the current part.
  TAV_EML_UTL_RETCODE skip_mail(tav_eml_mlutl_mail& mail, unsigned int timeout, int& sock,
                                TAV_EML_TLS_INFO& tls);
  TAV_EML_UTL_RETCODE skip_part(tav_eml_mlutl_mail& mail, unsigned int timeout, int& sock,
                                TAV_EML_TLS_INFO& tls);

  // Drops what was received and not yet read: 0, or 1 when there is no buffer.
  int flush_buffer();

  // Replaces what was received and not yet read: 0, or 1 for more than 4096 characters.
  int set_recv_buffer(const char* text);

  // Receives once, with up to three attempts while nothing comes. `length` is the room at `buffer`
  // and becomes the bytes received. `timeout` is in milliseconds.
  TAV_EML_UTL_RETCODE ReadMail(int& sock, char* buffer, long& length, long timeout,
                               TAV_EML_TLS_INFO& tls);

  // The next line with its line feed. An empty line with TAV_EML_UTL_OK means that only part of one
  // has arrived: call again. `timeout` is in seconds.
  TAV_EML_UTL_RETCODE ReadLine(unsigned int timeout, int& sock, UtlString& line, long& length,
                               TAV_EML_TLS_INFO& tls);

  bool IsEmptyLine(UtlString& line);

  // Unfolds a header block (RFC 5322 2.2.3): adds each line, with its CR LF, to `lines` as a
  // UtlString that the caller deletes. The text ends at its NUL, whatever `length` says, here and
  // in the two operations below.
  void RemoveWSP(const char* header, unsigned int length, UtlVector* lines);

  // Fill the mail, respectively its current part, from a decoded header block. 1 when the part is a
  // multipart, whose boundary is now open; otherwise 0.
  void AnalyzeMailHeader(tav_eml_mlutl_mail& mail, const char* header, unsigned int length);
  int AnalyzePartHeader(tav_eml_mlutl_mail& mail, const char* header, unsigned int length);

  // Fill a part from one header value. A boundary parameter is opened on the mail.
  void AnalyzeContentType(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                          UtlString& value);
  TAV_EML_TRANSFER_ENCODING AnalyzeTransferEncoding(tav_eml_mlutl_mail_part& part,
                                                    UtlString& value);
  void AnalyzeContentDisposition(tav_eml_mlutl_mail_part& part, UtlString& value);

  // Holds a body line against the innermost boundary: 0 no delimiter, 1 a delimiter, 2 the close
  // delimiter, whose level is closed; -1 for a null line and for a line that begins with "--" while
  // no boundary is open. A delimiter that is not the first of its level completes the current part.
  int ChkBoundaryString(const char* line, tav_eml_mlutl_mail& mail);

  // Removes the dot that the transfer has put in front of a line.
  void RemoveDot(UtlString& line);

  // 1 for the line that ends the message, which is complete then; otherwise removes the dot, counts
  // the line's `length` bytes and returns -1 when they exceed `limit`, else 0.
  int ChkMailEndLine(tav_eml_mlutl_mail& mail, UtlString& line, long length, long limit);

 private:
  friend class tav_eml_pop3_boundary;

  TAVEML_LOCAL bool is_ready() const;
  TAVEML_LOCAL line_buffer buffer();
  TAVEML_LOCAL message_walk walk(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                 TAV_EML_TLS_INFO& tls);

  char* m_pRecvBuffer;  // owned, room for 4096 bytes and a NUL
  long m_lReceived;     // bytes of the current message
  tav_eml_mlutl_stream* m_pStream;
  int32_t m_nFirst;  // what is buffered: from here
  int32_t m_nLast;   // up to here
};

}  // namespace quorvelmida

#endif
