#include "body_conversion.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <utility>

#include "codec/codec_text.h"
#include "common/guard.h"
#include "common/log.h"

namespace quorvelmida {

namespace {

// Bytes of converted text that any character fits in, escape sequences included.
constexpr int64_t kLeastRoom = 64;

// Room for what most texts become. A text that becomes longer is converted in several rounds.
long room_for(long length) {
  const int64_t room = std::max<int64_t>(length / 2 * int64_t{5}, kLeastRoom);
  return static_cast<long>(std::min<int64_t>(room, INT_MAX - 1));
}

TAV_EML_RESULT conversion_failure(const char* operation, int code) {
  TAV_EML_LOG_ERROR(
      "tav_eml_smtp_boundary::%s(): tav_eml_mlutl_mail_type::convert_encoded_string return "
      "0x%x[Error]\n",
      operation, log_code(code));
  return TAV_EML_ERR_UNKNOWN;
}

TAV_EML_RESULT convert(utl_buffer& text, TAV_EML_CHAR_SET char_set, const char* operation) {
  if (char_set == TAV_EML_CS_UTF_8) return TAV_EML_OK;
  utl_buffer room;
  const long capacity = room_for(text.length());
  if (!room.allocate_uncleared(capacity)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s():AllocError[Error]\n", operation);
    return TAV_EML_ERR_NO_MEMORY;
  }
  utl_buffer converted;
  TAV_EML_ENCODED_STRING rest = {TAV_EML_CS_UTF_8, text.data(),
                                 static_cast<int32_t>(text.length())};
  while (rest.length > 0) {
    TAV_EML_ENCODED_STRING piece = {char_set, room.data(), static_cast<int32_t>(capacity)};
    int consumed = 0;
    const int code = tav_eml_mlutl_mail_type::convert_encoded_string(rest, piece, consumed);
    if (code != 0 || consumed < 1) return conversion_failure(operation, code);
    rest.data += consumed;
    rest.length -= consumed;
    if (rest.length == 0 && converted.data() == nullptr) {
      room.set_length(piece.length);
      text = std::move(room);
      return TAV_EML_OK;
    }
    if (!append_text(converted, {room.data(), static_cast<size_t>(piece.length)})) {
      return TAV_EML_ERR_NO_MEMORY;
    }
  }
  text = std::move(converted);
  return TAV_EML_OK;
}

}  // namespace

TAV_EML_RESULT convert_body(utl_buffer& text, TAV_EML_CHAR_SET char_set, const char* operation) {
  return guarded(operation, [&] { return convert(text, char_set, operation); });
}

}  // namespace quorvelmida
