// header_fields.h - storing the values of a header.

#ifndef HEADER_FIELDS_H
#define HEADER_FIELDS_H

#include "quorvelmida/tav_eml_mlutl_mail.h"
#include "reception/header_lines.h"

namespace quorvelmida {

// Fills the mail from its header.
void take_mail_fields(tav_eml_mlutl_mail& mail, const header_lines& header);

// Opens the multipart that a part's header announces. False for the header of a leaf.
bool enter_multipart(tav_eml_mlutl_mail& mail, const header_lines& header);

// Fills the mail's current part from the header of a leaf.
void take_part_fields(tav_eml_mlutl_mail& mail, const header_lines& header);

}  // namespace quorvelmida

#endif
