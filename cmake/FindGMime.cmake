# GMime, which says where it is with pkg-config, and GIO, which comes with it: the target
# PkgConfig::GMime.

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(GMime QUIET IMPORTED_TARGET gmime-3.0 gio-2.0)
endif()
