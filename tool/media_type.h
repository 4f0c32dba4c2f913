// media_type.h - what is in a file: its type and its character set.

#ifndef MEDIA_TYPE_H
#define MEDIA_TYPE_H

#include <string>

#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace tavmail {

struct file_type {
  std::string type;  // "image/png"
  quorvelmida::TAV_EML_CHAR_SET char_set = quorvelmida::TAV_EML_CS_NONE;
};

// What --content-type says: a type and a subtype (RFC 2045 5.1), a character set at most. Throws a
// problem.
file_type parsed_media_type(const std::string& text);

// By the extension of the name, "application/octet-stream" when it tells nothing.
std::string media_type_of_name(const std::string& name);

// Of a text file: what all of its bytes are text in. TAV_EML_CS_NONE when they do not tell, and for
// what can be read only once. Throws a problem.
quorvelmida::TAV_EML_CHAR_SET char_set_of_file(const std::string& path);

}  // namespace tavmail

#endif
