// quoted_printable.h - quoted-printable (RFC 2045 6.7), inside the library.

#ifndef QUOTED_PRINTABLE_H
#define QUOTED_PRINTABLE_H

#include "common/utl_buffer.h"

namespace quorvelmida {

// As tav_eml_mlutl_mime_utility::from_qp.
bool decode_quoted_printable(const char* in, long length, utl_buffer& out);

}  // namespace quorvelmida

#endif
