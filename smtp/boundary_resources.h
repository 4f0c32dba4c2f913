// boundary_resources.h - what an object of the send interface holds apart from its own fields, so
// that its layout stays what applications were built with.

#ifndef BOUNDARY_RESOURCES_H
#define BOUNDARY_RESOURCES_H

#include "common/guard.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"

namespace quorvelmida {

struct tav_eml_smtp_boundary::resources {
  resources() = default;
  resources(const resources&) = delete;
  resources& operator=(const resources&) = delete;
  ~resources() {
    free_block();
    UtlOS::DeleteMutex(lock);
  }

  // A block of at least `size` bytes for encoded text. It is kept until the mail ends, because
  // getting and giving back as much for each piece costs more than encoding it.
  bool reserve_block(int32_t size) {
    if (size <= block_size) return true;
    free_block();
    block = static_cast<char*>(allocate_block("send_body", static_cast<size_t>(size)));
    if (block != nullptr) block_size = size;
    return block != nullptr;
  }

  void free_block() {
    UtlOS::MemFree(block);
    block = nullptr;
    block_size = 0;
  }

  UtlMutex* const lock = UtlOS::CreateMutex();
  char* block = nullptr;
  int32_t block_size = 0;
};

}  // namespace quorvelmida

#endif
