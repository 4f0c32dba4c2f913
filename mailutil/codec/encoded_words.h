// encoded_words.h - encoded words, inside the library.

#ifndef ENCODED_WORDS_H
#define ENCODED_WORDS_H

#include <string_view>

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace quorvelmida {

// Whether CR, LF and NUL from an encoded word become blanks. Where a header is split into lines
// afterwards, they could forge a line.
enum class line_breaks { kept, blanked };

// Takes a piece of decoded text; `step` says which piece it is. False if memory ran out.
using text_sink = bool (*)(void* out, std::string_view piece, int step);

// Passes `value` to `sink`, piece by piece, with every encoded word decoded. `char_set` becomes
// that of the last word; without a word it does not change. False if the sink returns false.
bool decode_encoded_words(std::string_view value, line_breaks breaks, text_sink sink, void* out,
                          TAV_EML_CHAR_SET& char_set);

// What to do with a character for which a word of the wanted length has no room.
enum class tight_words { fail, grow };

// As tav_eml_mlutl_mime_utility::ToMimeEncode, but lets exceptions through.
bool encode_as_words(TAV_EML_CHAR_SET char_set, const char* text, long len, int max_line,
                     tight_words tight, utl_buffer& out);

}  // namespace quorvelmida

#endif
