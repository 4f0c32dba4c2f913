// content_fields.h - the values of Content-Type, Content-Disposition and Content-Transfer-Encoding.

#ifndef CONTENT_FIELDS_H
#define CONTENT_FIELDS_H

#include <string_view>

#include "quorvelmida/tav_eml_mlutl_mail.h"

namespace quorvelmida {

// Every value is part of a text that ends in a NUL.

// Stores a header value. A lone CR in it becomes a blank: before a LF it would make a line end
// inside the value.
void store_value(UtlString& text, std::string_view value);

// Type and character set of a part; pushes a boundary parameter on the mail's stack.
void take_content_type(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                       std::string_view value);
void take_content_disposition(tav_eml_mlutl_mail_part& part, std::string_view value);
void take_transfer_encoding(tav_eml_mlutl_mail_part& part, std::string_view value);

// Opens the boundary in a content type, if there is one.
void open_boundary(tav_eml_mlutl_mail& mail, std::string_view value);

// The file name in a content type, and in a disposition. They are decoded from the lines as
// received. A header may have thousands of fields, so only the last one with a name is decoded.
void take_type_name(const tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                    std::string_view value);
void take_disposition_name(tav_eml_mlutl_mail_part& part, std::string_view value);
bool has_type_name(std::string_view value);
bool has_disposition_name(std::string_view value);

}  // namespace quorvelmida

#endif
