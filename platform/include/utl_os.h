// utl_os.h - operating system boundary of the utility library (libutlbase.so.1): memory and mutex.
//
// Contract of a port:
//  - Memory: MemAllocate(0) is not null. MemReallocate(null, n) allocates; a failed one returns
//    null and keeps the old block. MemFree(null) does nothing. Blocks are aligned for any type and
//    are not cleared.
//  - Mutex: taken by one thread at a time; TakeMutex waits until it is free. Taken again by the
//    thread that already holds it, it is granted at once and does not nest: one GiveMutex releases
//    it. A GiveMutex by a thread that does not hold it is refused. Deleting a held mutex is
//    harmless.
//  - MemAllocate and MemReallocate may throw what the library catches around its calls (a pointer
//    to its mail exception); a MemReallocate that throws keeps the old block. Nothing else is
//    thrown.

#ifndef UTL_OS_H
#define UTL_OS_H

#include <cstddef>

#include "utl_export.h"

struct UtlMutex;  // opaque

class UTL_API UtlOS {
 public:
  static void* MemAllocate(size_t size);
  static void* MemReallocate(void* block, size_t size);
  static void MemFree(void* block) noexcept;

  static UtlMutex* CreateMutex() noexcept;            // null when memory runs out
  static int TakeMutex(UtlMutex* mutex) noexcept;     // 1 taken, 0 for a null mutex
  static int GiveMutex(UtlMutex* mutex) noexcept;     // 1 released, 0 refused or null
  static void DeleteMutex(UtlMutex* mutex) noexcept;  // null does nothing
};

#endif
