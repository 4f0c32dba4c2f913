// encoded_words.h - encoded words, inside the library.

#ifndef ENCODED_WORDS_H
#define ENCODED_WORDS_H

#include <string_view>

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace quorvelmida {

// What becomes of CR, LF and NUL that come out of an encoded word. In a header that is split into
// lines afterwards, a word could forge a line with them.
enum class line_breaks { kept, blanked };

// Takes a piece of decoded text; `step` tells which piece it is. False when memory ran out.
using text_sink = bool (*)(void* out, std::string_view piece, int step);

// Hands `value` to `sink`, piece by piece, with every encoded word decoded. `char_set` becomes that
// of the last word and is untouched when there is none. False when the sink says so.
bool decode_encoded_words(std::string_view value, line_breaks breaks, text_sink sink, void* out,
                          TAV_EML_CHAR_SET& char_set);

// What becomes of a character that no word of the wanted length has room for.
enum class tight_words { fail, grow };

// As tav_eml_mlutl_mime_utility::ToMimeEncode, for callers that report exceptions themselves: they
// go through.
bool encode_as_words(TAV_EML_CHAR_SET char_set, const char* text, long len, int max_line,
                     tight_words tight, utl_buffer& out);

}  // namespace quorvelmida

#endif
