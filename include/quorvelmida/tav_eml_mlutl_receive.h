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
struct receive_operation;

// Reads a message after RETR or TOP line by line (RFC 1939) and fills a tav_eml_mlutl_mail and its
// parts (RFC 5322, RFC 2045 to 2047, RFC 2231). The order for one message:
//
//   receive_header                       or receive_header_only after TOP
//   receive_body                         for a message of a single part, until m_nComplete
//   set_part of a new part, receive_part_header, then receive_part_body until the part's
//   m_nComplete, or skip_part            for a multipart message, while m_nReceiving
//   skip_mail                            to drop the rest
//
// Call flush_buffer between messages. tav_eml_pop3_boundary makes these calls in this order.
//
// `sock` is the connection's handle, 0 for none. A transport failure, lasting silence or a line of
// more than 4095 bytes ends TLS, closes the connection and sets `sock` to 0. `timeout` is in
// seconds, for each wait. Every failure writes a line to the debug log.
//
// Limits: 4095 bytes for a line, 256 KiB for a header, 1000 bytes for a boundary, 100 open
// boundaries. A longer header fails; a multipart beyond the last two limits is not entered. Data is
// delivered in blocks, whatever the size of the message. A message that has not ended after 2 GiB
// fails with TAV_EML_UTL_BAD_REPLY. A call that skips data may wait for each byte of it. A NUL byte
// becomes a blank.
class TAVEML_API tav_eml_mlutl_receive : public UtlObject {
 public:
  tav_eml_mlutl_receive();
  tav_eml_mlutl_receive(const tav_eml_mlutl_receive&) = delete;
  tav_eml_mlutl_receive& operator=(const tav_eml_mlutl_receive&) = delete;
  ~tav_eml_mlutl_receive() override;

  // Reads the reply to TOP with 0 lines, to its end.
  // Results of the receive operations: TAV_EML_UTL_OK; TAV_EML_UTL_ERROR for a wrong order of calls
  // or unusable data; TAV_EML_UTL_NOT_CONNECTED; TAV_EML_UTL_BAD_REPLY for a line
  // that is too long; TAV_EML_UTL_NO_MEMORY; TAV_EML_UTL_RECV_ERROR, the connection is closed.
  TAV_EML_UTL_RETCODE receive_header_only(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                          TAV_EML_TLS_INFO& tls);

  // Reads the message's header. A failure that closes the connection gives
  // TAV_EML_UTL_NOT_CONNECTED. `limit` is not used.
  TAV_EML_UTL_RETCODE receive_header(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                     unsigned long limit, TAV_EML_TLS_INFO& tls);

  // Reads a block of a single-part message, decodes it and appends it to the mail's data, from
  // where get_buffer takes it. A block has at most 4096 encoded bytes and ends at a line end. If
  // base64 lines do not hold whole groups of 4 characters, the rest of a group begins the next
  // block, and a block of one long line may have 2 bytes more. A block that decodes to nothing
  // gives TAV_EML_UTL_ERROR; the message can be read on.
  TAV_EML_UTL_RETCODE receive_body(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                   TAV_EML_TLS_INFO& tls);

  // Reads up to and including the header of the next leaf part, into the mail's current part, which
  // must be a new one. Multiparts on the way are entered or left. A part that is complete right
  // after this call holds nothing.
  TAV_EML_UTL_RETCODE receive_part_header(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                          TAV_EML_TLS_INFO& tls);

  // As receive_body, for the current part of a multipart message. The last part's call also reads
  // and drops what follows the outermost multipart. The line end before a delimiter is data.
  TAV_EML_UTL_RETCODE receive_part_body(tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                        TAV_EML_TLS_INFO& tls);

  // Read and drop the rest of the message, or of the current part.
  TAV_EML_UTL_RETCODE skip_mail(tav_eml_mlutl_mail& mail, unsigned int timeout, int& sock,
                                TAV_EML_TLS_INFO& tls);
  TAV_EML_UTL_RETCODE skip_part(tav_eml_mlutl_mail& mail, unsigned int timeout, int& sock,
                                TAV_EML_TLS_INFO& tls);

  // Drops what was received but not yet read. Returns 0, or 1 if there is no buffer.
  int flush_buffer();

  // Replaces what was received but not yet read. Returns 0, or 1 for more than 4096 characters.
  int set_recv_buffer(const char* text);

  // Receives once, in up to three attempts while nothing arrives. `length` is the room at `buffer`
  // and becomes the number of bytes received. `timeout` is in milliseconds.
  TAV_EML_UTL_RETCODE ReadMail(int& sock, char* buffer, long& length, long timeout,
                               TAV_EML_TLS_INFO& tls);

  // Reads the next line, line feed included. An empty line with TAV_EML_UTL_OK means that only part
  // of a line has arrived: call again. `timeout` is in seconds.
  TAV_EML_UTL_RETCODE ReadLine(unsigned int timeout, int& sock, UtlString& line, long& length,
                               TAV_EML_TLS_INFO& tls);

  bool IsEmptyLine(UtlString& line);

  // Unfolds a header block (RFC 5322 2.2.3): adds each line, with its CR LF, to `lines` as a
  // UtlString that the caller deletes. Here and in the two operations below the text ends at its
  // NUL; `length` is not used.
  void RemoveWSP(const char* header, unsigned int length, UtlVector* lines);

  // Fill the mail, or its current part, from a decoded header block. AnalyzePartHeader returns 1 if
  // the part is a multipart, whose boundary is then open; otherwise 0.
  void AnalyzeMailHeader(tav_eml_mlutl_mail& mail, const char* header, unsigned int length);
  int AnalyzePartHeader(tav_eml_mlutl_mail& mail, const char* header, unsigned int length);

  // Fill a part from one header value. A boundary parameter is pushed on the mail's stack.
  void AnalyzeContentType(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                          UtlString& value);
  TAV_EML_TRANSFER_ENCODING AnalyzeTransferEncoding(tav_eml_mlutl_mail_part& part,
                                                    UtlString& value);
  void AnalyzeContentDisposition(tav_eml_mlutl_mail_part& part, UtlString& value);

  // Compares a body line with the innermost boundary. Returns 0 for an ordinary line, 1 for a
  // delimiter, 2 for a close delimiter, which also closes the level, and -1 for a null line or for
  // a line that begins with "--" while no boundary is open. A delimiter that is not the first of
  // its level completes the current part.
  int ChkBoundaryString(const char* line, tav_eml_mlutl_mail& mail);

  // Removes the dot that the protocol adds to a line that begins with one.
  void RemoveDot(UtlString& line);

  // Returns 1 for the line that ends the message and marks the mail as complete. Otherwise removes
  // the dot, counts the line's `length` bytes and returns -1 once they exceed `limit`, else 0.
  int ChkMailEndLine(tav_eml_mlutl_mail& mail, UtlString& line, long length, long limit);

 private:
  friend class tav_eml_pop3_boundary;

  TAVEML_LOCAL bool is_ready() const;
  TAVEML_LOCAL line_buffer buffer();
  TAVEML_LOCAL message_walk walk(const receive_operation& operation, tav_eml_mlutl_mail& mail,
                                 int& sock, unsigned int timeout, TAV_EML_TLS_INFO& tls);

  char* m_pRecvBuffer;  // owned, room for 4096 bytes and a NUL
  long m_lReceived;     // bytes of the current message
  tav_eml_mlutl_stream* m_pStream;
  int32_t m_nFirst;  // the buffered bytes begin here
  int32_t m_nLast;   // and end here
};

}  // namespace quorvelmida

#endif
