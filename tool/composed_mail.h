// composed_mail.h - a mail that the facade does not compose.

#ifndef COMPOSED_MAIL_H
#define COMPOSED_MAIL_H

#include <functional>

#include "mime_library.h"
#include "outgoing_mail.h"

namespace tavmail {

// The header is that of the facade's mail, with the fields of its own behind it; the texts are
// alternatives. The files are read while it is composed, and `advance` is told of their bytes:
// `out` outlives what is returned. Throws a problem.
mime_mail as_mime(outgoing& out, bool is_fax, const std::function<void(size_t)>& advance);

}  // namespace tavmail

#endif
