// osw.h - the device's operating system wrappers.

#ifndef OSW_H
#define OSW_H

#include <cstddef>
#include <cstdint>

#include "utl_export.h"

extern "C" {

// Memory of the calling part; null when it runs out. Blocks are not cleared.
UTL_API void* osw_SubAllocMem(size_t size) noexcept;
// Frees a block of osw_SubAllocMem. `part` is 0 for the calling part; a null block does nothing.
UTL_API void osw_OrgFreeMemPart(int32_t part, void* block) noexcept;

// Suspends the calling thread for `milliseconds`; 0 or less returns at once. An interruption by a
// signal does not shorten the wait.
UTL_API void osw_Sleep(int32_t milliseconds) noexcept;

}  // extern "C"

#endif
