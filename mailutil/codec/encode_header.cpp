// Encoded words (RFC 2047): encoding what needs it in a composed header.

#include <algorithm>
#include <cstring>

#include "codec/codec_text.h"
#include "codec/encoded_words.h"
#include "common/guard.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "inline_encode";
constexpr int kMaxLine = 75;
constexpr char kTo[] = "To: ";

// Neither white space nor printable in the POSIX locale.
bool needs_encoding(char ch) {
  const unsigned char byte = static_cast<unsigned char>(ch);
  const bool is_space = byte == ' ' || (byte >= '\t' && byte <= '\r');
  return !is_space && (byte < 0x20 || byte > 0x7E);
}

// The text to encode and the line that it is on.
struct encoded_run {
  const char* line;
  const char* start;
  const char* end;
};

// Finds the run around `byte`, which needs encoding, in the header from `from` to `end`.
bool find_run(const char* from, const char* end, const char* byte, encoded_run& run) {
  // The line feed before the byte; one at `from` itself does not count.
  run.line = byte;
  while (run.line - from > 1 && run.line[-1] != '\n') --run.line;
  if (run.line - from <= 1) return codec_failure(kName, " '\n' not found");

  const char* delimiter =
      std::find_if(run.line, byte, [](char ch) { return ch == '"' || ch == ' '; });
  if (delimiter == byte) return codec_failure(kName, " '\"' and ' ' not found");
  run.start = delimiter + 1;
  run.end = std::find(run.start, end, '\r');

  if (*delimiter == '"' && run.end > run.start && run.end[-1] == '"') {
    --run.end;
  } else if (std::strncmp(run.line, kTo, sizeof kTo - 1) == 0) {
    // The display name is encoded, the address is not.
    const char* bracket = run.end;
    while (bracket > run.start && *(bracket - 1) != '<') --bracket;
    if (bracket == run.start) return codec_failure(kName, " '<' not found");
    run.end = bracket - 1;
  }
  return true;
}

bool append(utl_buffer& out, const char* from, const char* to, int step) {
  return append_text(out, {from, static_cast<size_t>(to - from)}, kName, step);
}

// Appends the run as encoded words, or as it is if it cannot be encoded. Far to the right a word
// may be longer than the line has room for: a long line is better than raw text.
bool append_run(utl_buffer& out, const encoded_run& run, TAV_EML_CHAR_SET char_set) {
  const long indent = static_cast<long>(run.start - run.line);
  const int max_line = kMaxLine - static_cast<int>(std::min<long>(indent, kMaxLine));
  utl_buffer words;
  return encode_as_words(char_set, run.start, static_cast<long>(run.end - run.start), max_line,
                         tight_words::grow, words)
             ? append_text(out, words.view(), kName, 746)
             : append(out, run.start, run.end, 758);
}

bool encode_header(const utl_buffer& header, TAV_EML_CHAR_SET char_set, utl_buffer& out) {
  const char* from = header.data();
  const char* const end = from + header.length();
  for (;;) {
    const char* byte = std::find_if(from, end, needs_encoding);
    if (byte == end) return append(out, from, end, 769);
    encoded_run run = {};
    if (!find_run(from, end, byte, run) || !append(out, from, run.start, 729) ||
        !append_run(out, run, char_set)) {
      return false;
    }
    from = run.end;
  }
}

}  // namespace

int tav_eml_mlutl_mime_utility::inline_encode(const char* header, long len, char*& out,
                                              long& out_len, TAV_EML_CHAR_SET char_set) {
  out = nullptr;
  out_len = 0;
  if (!is_readable(kName, header, len)) return 0;
  return guarded(kName, false, [&] {
    return reporting_mail_exceptions(
        "<Error> : tav_eml_mlutl_mime_utility::inline_encode()", false, [&] {
          utl_buffer work;
          if (!work.assign(header, std::max<long>(len, 0))) {
            return codec_failure(kName, " failed to allocate memory", 637);
          }
          utl_buffer encoded;
          if (!encode_header(work, char_set, encoded)) return false;
          encoded.release(out, out_len);
          return true;
        });
  });
}

}  // namespace quorvelmida
