#include "osw.h"

#include <cstdlib>

#include "port_time.h"

void* osw_SubAllocMem(size_t size) noexcept { return std::malloc(size > 0 ? size : 1); }

void osw_OrgFreeMemPart(int32_t /*part*/, void* block) noexcept { std::free(block); }

void osw_Sleep(int32_t milliseconds) noexcept {
  if (milliseconds > 0) deadline(milliseconds).wait(-1, 0);
}
