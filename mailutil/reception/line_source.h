// line_source.h - the lines of a message as they come from the connection.

#ifndef LINE_SOURCE_H
#define LINE_SOURCE_H

#include <cstdint>
#include <string_view>

#include "quorvelmida/tav_eml_mlutl_mail.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"
#include "transport/connection.h"

namespace quorvelmida {

// The bytes received but not yet read, and the number of the message's bytes that were read. These
// are members of the receiver and outlive the call.
struct line_buffer {
  static constexpr int32_t kSize = 4096;

  char* data;  // room for kSize bytes and a NUL; null if memory ran out
  int32_t& first;
  int32_t& last;
  long& received;

  void clear() {
    first = 0;
    last = 0;
  }
  // Counts the bytes of a line. The count has an upper bound: a message may be endless.
  void count(int64_t bytes);
};

// What reading does on a connection: a failure closes it.
extern const protocol_rules kReceptionRules;

// A view of the buffer and of a connection.
class line_source {
 public:
  // `timeout` is in seconds, for each wait.
  line_source(const line_buffer& buffer, int& sock, unsigned int timeout, TAV_EML_TLS_INFO& tls);

  // The next line with its line feed. Empty with TAV_EML_UTL_OK if only part of a line has arrived.
  // A line is valid until the next one is read.
  TAV_EML_UTL_RETCODE read(std::string_view& line);

  // The next line of the message, its stuffed dot removed. For the line that ends the message,
  // marks the mail as ended and gives an empty line.
  TAV_EML_UTL_RETCODE read_content(tav_eml_mlutl_mail& mail, std::string_view& line);

  // Whole lines of plain content as one piece, up to the line that reaches `room` bytes. Lines that
  // begin with a dot or a hyphen may be more than content and are left to read_content(). Empty if
  // the next line is one of these or has not arrived.
  std::string_view take_plain(long room);

 private:
  bool take(std::string_view& line);
  TAV_EML_UTL_RETCODE fill();

  line_buffer m_cBuffer;
  connection m_cLink;
};

// Receives once into `buffer` of `length` bytes, which becomes the number received. Closes the
// connection after three attempts without data.
TAV_EML_UTL_RETCODE receive_bytes(connection& link, char* buffer, long& length);

// Marks a message as read to its end.
void end_mail(tav_eml_mlutl_mail& mail);

constexpr std::string_view kEndOfMail = ".\r\n";

}  // namespace quorvelmida

#endif
