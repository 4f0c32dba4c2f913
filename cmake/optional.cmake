# What the tool and the tests are built with. Where a package is missing, the part is left out.

# taveml_needs(SWITCH PART [PACKAGE VERSION DEBIAN]...) turns the switch off in the calling scope and
# says in one line what is left out and what brings it; with TAVEML_REQUIRE_ALL that is an error.
function(taveml_needs switch part)
  set(missing)
  while(ARGN)
    list(POP_FRONT ARGN package version debian)
    find_package(${package} ${version} QUIET)
    if(NOT ${package}_FOUND)
      list(APPEND missing ${debian})
    endif()
  endwhile()
  if(NOT missing)
    return()
  endif()
  list(JOIN missing " " missing)
  if(TAVEML_REQUIRE_ALL)
    message(FATAL_ERROR "${part} cannot be built; not found: ${missing}")
  endif()
  message(STATUS "taveml: ${part} left out; the Debian packages to install: ${missing}")
  set(${switch} OFF PARENT_SCOPE)
endfunction()
