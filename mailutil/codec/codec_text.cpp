#include "codec/codec_text.h"

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace quorvelmida {

bool append_text(utl_buffer& out, std::string_view text) {
  return out.append({text}) || codec_failure("ReallocationBuffer", "  failed to reallocate memory");
}

bool append_text(utl_buffer& out, std::string_view text, const char* operation, int step) {
  return append_text(out, text) || codec_failure(operation, " ReallocationBuffer[NG]", step);
}

bool codec_failure(const char* operation, const char* text) {
  TAV_EML_LOG_ERROR("<Error> : tav_eml_mlutl_mime_utility::%s()%s\n", operation, text);
  return false;
}

bool codec_failure(const char* operation, const char* text, int step) {
  TAV_EML_LOG_ERROR("<Error> : tav_eml_mlutl_mime_utility::%s()%s: Line%d\n", operation, text,
                    step);
  return false;
}

int tav_eml_mlutl_mime_utility::ReallocationBuffer(char*& buf, long& buf_len, const void* data,
                                                   long data_len) {
  if (!is_readable("ReallocationBuffer", data, data_len)) return 0;
  lent_buffer buffer(buf, buf_len);
  return guarded("ReallocationBuffer", 0, [&] {
    const bool fits = buf_len >= 0 && data_len >= 0;
    // A length out of range fails like memory that ran out.
    const size_t size = fits ? static_cast<size_t>(data_len) : std::string_view::npos;
    return append_text(buffer, {static_cast<const char*>(data), size}) ? 1 : 0;
  });
}

}  // namespace quorvelmida
