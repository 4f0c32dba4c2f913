// part_text.h - appending to a composed header.

#ifndef PART_TEXT_H
#define PART_TEXT_H

namespace quorvelmida {

// As tav_eml_mlutl_mail_part::add_buffer, but lets exceptions of the allocator through.
bool append_bytes(char*& buffer, long& length, const void* bytes, long count);

}  // namespace quorvelmida

#endif
