// data_spool.h - gathers message lines into few large writes.

#ifndef DATA_SPOOL_H
#define DATA_SPOOL_H

#include <cstdint>

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_result.h"
#include "transport/connection.h"

namespace quorvelmida {

// Puts message lines on the wire in SMTP's form (RFC 5321 4.5.2, 2.3.8): a dot at a line start is
// doubled, every line ends in CR LF.
class data_spool {
 public:
  explicit data_spool(connection& link) : m_cLink(link) {}

  // Makes the spool, as large as a chunk of `length` bytes needs it.
  bool allocate(long length);

  // Takes the line from `text` up to its LF, which comes after the `length` bytes.
  TAV_EML_RESULT add_line(const char* text, long length);
  // Sends what was gathered, and at the end a line of `length` bytes that has no LF yet (0: none).
  TAV_EML_RESULT finish(const char* text, long length);
  // Sends lines that are in the wire's form already. The spool must be empty.
  TAV_EML_RESULT send_wire_form(const char* lines, long length);

 private:
  static constexpr long kCapacity = 65536;

  // A line in its three pieces.
  struct wire_line {
    wire_line(const char* text, long length, const char* line_end);
    int64_t size() const { return int64_t{length} + stuffing + end_length; }

    long stuffing;  // 1 when a dot is put in front
    const char* text;
    long length;
    const char* end;
    long end_length;
  };

  void append(const wire_line& line);
  TAV_EML_RESULT flush(const char* failed_step);
  TAV_EML_RESULT send_directly(const wire_line& line, const char* failed_step);

  connection& m_cLink;
  utl_buffer m_cSpool;
};

}  // namespace quorvelmida

#endif
