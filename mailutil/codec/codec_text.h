// codec_text.h - the text that a codec writes, piece by piece.

#ifndef CODEC_TEXT_H
#define CODEC_TEXT_H

#include <string_view>

#include "common/utl_buffer.h"

namespace quorvelmida {

// Appends to `out`. False, after a log line, when memory ran out; exceptions of the device's
// allocator go through.
bool append_text(utl_buffer& out, std::string_view text);

}  // namespace quorvelmida

#endif
