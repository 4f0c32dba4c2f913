// body_conversion.h - UTF-8 text into a mail's character set.

#ifndef BODY_CONVERSION_H
#define BODY_CONVERSION_H

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"
#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// Replaces the UTF-8 text by the same text in `char_set`, all of it. TAV_EML_ERR_NO_MEMORY, or
// TAV_EML_ERR_UNKNOWN when the set lacks a character or the text ends inside one.
TAV_EML_RESULT convert_body(utl_buffer& text, TAV_EML_CHAR_SET char_set, const char* operation);

}  // namespace quorvelmida

#endif
