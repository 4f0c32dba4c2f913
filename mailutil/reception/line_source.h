// line_source.h - the lines of a message as they come from the connection.

#ifndef LINE_SOURCE_H
#define LINE_SOURCE_H

#include <cstdint>
#include <string_view>

#include "quorvelmida/tav_eml_mlutl_mail.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// What has been received and not yet read, and how much of the message has been. The receiver's
// members: they outlive the call.
struct line_buffer {
  static constexpr int32_t kSize = 4096;

  char* data;  // room for kSize bytes and a NUL; null when memory ran out
  int32_t& first;
  int32_t& last;
  long& received;

  void clear() {
    first = 0;
    last = 0;
  }
  // Counts the bytes of a line, up to a bound: a peer may go on for ever.
  void count(int64_t bytes);
};

// A view of the buffer and of a connection. A failure of the connection closes it.
class line_source {
 public:
  // `timeout` is in seconds, for each wait.
  line_source(const line_buffer& buffer, int& sock, unsigned int timeout, TAV_EML_TLS_INFO& tls);

  // The next line with its line feed. Empty with TAV_EML_UTL_OK: only a part of one has arrived.
  // A line stays valid until the next one is read.
  TAV_EML_UTL_RETCODE read(std::string_view& line);

  // The next line of the message without the dot that the transfer puts in front of some. The line
  // that ends the message marks the mail as ended and is given as an empty one.
  TAV_EML_UTL_RETCODE read_content(tav_eml_mlutl_mail& mail, std::string_view& line);

  // Whole lines that are content and nothing else, as one piece: those that begin with a dot or a
  // hyphen may be more. It ends with the line that reaches `room` bytes. Empty when the next line
  // has not arrived or must be looked at.
  std::string_view take_plain(long room);

 private:
  bool take(std::string_view& line);
  TAV_EML_UTL_RETCODE fill();

  line_buffer m_cBuffer;
  int& m_nSock;
  const long m_lTimeout;
  TAV_EML_TLS_INFO& m_cTls;
};

// Receives once into `buffer` of `length` bytes, which becomes the count. Up to three attempts
// while nothing comes, then the connection is closed. `timeout` is in milliseconds.
TAV_EML_UTL_RETCODE receive_bytes(int& sock, char* buffer, long& length, long timeout,
                                  TAV_EML_TLS_INFO& tls);

// Marks a message of which the last line has been read.
void end_mail(tav_eml_mlutl_mail& mail);

constexpr std::string_view kEndOfMail = ".\r\n";

}  // namespace quorvelmida

#endif
