# liblockfile: the target lockfile::lockfile.

find_path(lockfile_INCLUDE_DIR lockfile.h)
find_library(lockfile_LIBRARY lockfile)
mark_as_advanced(lockfile_INCLUDE_DIR lockfile_LIBRARY)
if(lockfile_INCLUDE_DIR AND lockfile_LIBRARY)
  set(lockfile_FOUND TRUE)
  if(NOT TARGET lockfile::lockfile)
    add_library(lockfile::lockfile UNKNOWN IMPORTED)
    set_target_properties(lockfile::lockfile PROPERTIES
      IMPORTED_LOCATION ${lockfile_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${lockfile_INCLUDE_DIR})
  endif()
endif()
