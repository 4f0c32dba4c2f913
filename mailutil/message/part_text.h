// part_text.h - what header composition is made of.

#ifndef PART_TEXT_H
#define PART_TEXT_H

namespace quorvelmida {

// As tav_eml_mlutl_mail_part::add_buffer, for callers that report exceptions of the allocator
// themselves: they go through.
bool append_bytes(char*& buffer, long& length, const void* bytes, long count);

}  // namespace quorvelmida

#endif
