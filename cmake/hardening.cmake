# Hardening flags, in every build but those with sanitizers. Debian's packages set most of them
# themselves; with this file a device's build has them, too.
#
# The same sources give the same bytes, wherever they are built.

include(CheckCXXCompilerFlag)
include(CheckPIESupported)

# No path of the build machine enters a binary; a debugger wants them.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
check_cxx_compiler_flag(-ffile-prefix-map=a=b TAVEML_HAS_PREFIX_MAP)
if(TAVEML_HAS_PREFIX_MAP)
  cmake_path(RELATIVE_PATH PROJECT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_BINARY_DIR}
    OUTPUT_VARIABLE taveml_way_up)
  foreach(map ${PROJECT_SOURCE_DIR}=. ${PROJECT_BINARY_DIR}=build ${taveml_way_up}=.)
    set(taveml_map $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${map}>)
    add_compile_options(${taveml_map})
    add_link_options(${taveml_map})  # where the library is optimized as a whole, code is made there
  endforeach()
endif()

# Its result would change the programs of a project around this one.
if(PROJECT_IS_TOP_LEVEL)
  check_pie_supported(LANGUAGES CXX)
endif()

option(TAVEML_HARDENING "stack protector, checked C functions, read-only relocations" ON)
if(NOT TAVEML_HARDENING OR TAVEML_SANITIZE OR TAVEML_FUZZ)
  return()
endif()

if(NOT CMAKE_CXX_FLAGS MATCHES "-fstack-protector")
  set(TAVEML_GUARDS ON)
  add_compile_options(-fstack-protector-strong)
endif()
# Only an optimizer knows the sizes that it checks.
add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
# Shadow stack on x86, signed returns and landing pads on 64-bit ARM. Landing pads on x86 would cost
# 2 KiB of the library, and no system has a use for them outside the kernel.
set(CMAKE_REQUIRED_FLAGS -Werror)  # clang only warns of what the machine does not have
foreach(flag -fcf-protection=return -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER TAVEML_HAS${flag} variable)
  check_cxx_compiler_flag(${flag} ${variable})
  if(${variable})
    add_compile_options(${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)
add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
