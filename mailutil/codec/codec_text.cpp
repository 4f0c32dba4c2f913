#include "codec/codec_text.h"

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace quorvelmida {

bool append_text(utl_buffer& out, std::string_view text) {
  if (out.append({text})) return true;
  TAV_EML_LOG_ERROR(
      "<Error> : tav_eml_mlutl_mime_utility::ReallocationBuffer()  failed to reallocate memory\n");
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
