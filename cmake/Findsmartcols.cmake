# libsmartcols, which says where it is with pkg-config: the target PkgConfig::smartcols.

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(smartcols QUIET IMPORTED_TARGET smartcols)
endif()
