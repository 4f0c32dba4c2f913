# libsmartcols, which says with pkg-config where its headers are: smartcols_INCLUDE_DIRS. The tool
# loads the library itself when it wants it.

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(smartcols QUIET smartcols)
endif()
