// encoded_words.h - encoded words, inside the library.

#ifndef ENCODED_WORDS_H
#define ENCODED_WORDS_H

#include <string>
#include <string_view>

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace quorvelmida {

// Appends `value` to `out` with every encoded word decoded. CR, LF and NUL from a word become
// blanks. `char_set` becomes that of the last word; without a word it does not change. Throws
// std::bad_alloc.
void append_decoded(std::string_view value, std::string& out, TAV_EML_CHAR_SET& char_set);

// What to do with a character for which a word of the wanted length has no room.
enum class tight_words { fail, grow };

// As tav_eml_mlutl_mime_utility::ToMimeEncode, but lets exceptions through.
bool encode_as_words(TAV_EML_CHAR_SET char_set, const char* text, long len, int max_line,
                     tight_words tight, utl_buffer& out);

}  // namespace quorvelmida

#endif
