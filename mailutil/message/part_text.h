// part_text.h - composing text for a part.

#ifndef PART_TEXT_H
#define PART_TEXT_H

#include <initializer_list>
#include <string_view>

#include "common/utl_buffer.h"

namespace quorvelmida {

// Appends the texts in one step, as tav_eml_mlutl_mail_part::add_buffer does, but lets exceptions
// of the allocator through. False, after a log line, if memory runs out.
bool append_header_text(utl_buffer& header, std::initializer_list<std::string_view> texts);

// Logs "<Error> : tav_eml_mlutl_mail_part::<operation>()<text>" and returns false.
bool part_failure(const char* operation, const char* text);

}  // namespace quorvelmida

#endif
