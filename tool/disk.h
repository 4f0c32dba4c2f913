// disk.h - what is written stays there.

#ifndef DISK_H
#define DISK_H

#include <sys/types.h>

#include <string>

#include "problem.h"

namespace tavmail {

// Results are false when it failed; errno tells why.

// Writes all of the bytes at an offset of the file.
bool write_at(int fd, const std::string& bytes, off_t offset);

// Waits until the names in a folder, or in the one that a path is in, are on the disk.
bool sync_folder(const std::string& folder);
bool sync_folder_of(const std::string& path);

// "cannot WHAT PATH: why", after errno.
problem cannot(const std::string& what, const std::string& path);
// Ends the command where a folder cannot be made to last.
void require_synced(const std::string& folder);

}  // namespace tavmail

#endif
