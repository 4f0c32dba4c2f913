// convert_text.h - conversion between character sets, inside the library.

#ifndef CONVERT_TEXT_H
#define CONVERT_TEXT_H

#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace quorvelmida {

// As tav_eml_mlutl_mail_type::convert_encoded_string, but lets exceptions of the converter through.
int convert_text(const TAV_EML_ENCODED_STRING& in, TAV_EML_ENCODED_STRING& out, int& consumed);

}  // namespace quorvelmida

#endif
