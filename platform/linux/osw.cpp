#include "osw.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

void* osw_SubAllocMem(size_t size) noexcept { return std::malloc(size > 0 ? size : 1); }

void osw_OrgFreeMemPart(int32_t /*part*/, void* block) noexcept { std::free(block); }

void osw_Sleep(int32_t milliseconds) noexcept {
  if (milliseconds <= 0) return;
  timespec rest = {milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}
