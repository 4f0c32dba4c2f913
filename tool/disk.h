// disk.h - what is written stays there.

#ifndef DISK_H
#define DISK_H

#include <sys/types.h>

#include <string>

namespace tavmail {

// Results are false when it failed; errno tells why.

// Writes all of the bytes at an offset of the file.
bool write_at(int fd, const std::string& bytes, off_t offset);

// Waits until the names in a folder, or in the one that a path is in, are on the disk.
bool sync_folder(const std::string& folder);
bool sync_folder_of(const std::string& path);

}  // namespace tavmail

#endif
