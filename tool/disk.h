// disk.h - what is written stays there.

#ifndef DISK_H
#define DISK_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "problem.h"

namespace tavmail {

// Results are false when it failed; errno tells why.

// Write all of the bytes: at an offset of the file, or at its current position.
bool write_at(int fd, const std::string& bytes, off_t offset);
bool write_all(int fd, std::string_view bytes);

// Waits until the names in a folder, or in the one that a path is in, are on the disk.
bool sync_folder(const std::string& folder);
bool sync_folder_of(const std::string& path);

// What errno tells: "cannot write x: No space left on device".
problem cannot(const std::string& what, const std::string& path);
// As sync_folder, but throws that.
void require_synced(const std::string& folder);

}  // namespace tavmail

#endif
