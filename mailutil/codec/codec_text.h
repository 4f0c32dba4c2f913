// codec_text.h - the text that a codec writes, and what it logs.

#ifndef CODEC_TEXT_H
#define CODEC_TEXT_H

#include <string_view>

#include "common/utl_buffer.h"

namespace quorvelmida {

// Appends to `out`. False, after a log line, when memory ran out; exceptions of the device's
// allocator go through.
bool append_text(utl_buffer& out, std::string_view text);
// The same; then logs a failure also as that of `operation`, with the number of the step.
bool append_text(utl_buffer& out, std::string_view text, const char* operation, int step);

// Log "<Error> : tav_eml_mlutl_mime_utility::<operation>()<text>", with the number of the step
// where one is given, and return false.
bool codec_failure(const char* operation, const char* text);
bool codec_failure(const char* operation, const char* text, int step);

}  // namespace quorvelmida

#endif
