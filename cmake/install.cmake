# Installation, and the CMake package and pkg-config files for other programs. Their paths are
# relative to the prefix, which may be moved afterwards.
#
# Components: runtime (the libraries), development, tool, host, documentation.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The platform's headers keep their short names ("osw.h"), so they have a separate folder.
set(taveml_platform_includedir ${CMAKE_INSTALL_INCLUDEDIR}/taveml/platform)

install(TARGETS taveml EXPORT taveml
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
    NAMELINK_COMPONENT development)
# What taveml_public_headers() gave a target.
function(taveml_install_headers target source_folder folder)
  if(CMAKE_VERSION VERSION_LESS 3.23)
    install(TARGETS ${target} EXPORT taveml)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${source_folder}/ DESTINATION ${folder}
      COMPONENT development FILES_MATCHING PATTERN "*.h")
  else()
    install(TARGETS ${target} EXPORT taveml
      FILE_SET HEADERS DESTINATION ${folder} COMPONENT development)
  endif()
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${folder}>)
endfunction()
taveml_install_headers(taveml_headers include ${CMAKE_INSTALL_INCLUDEDIR})
taveml_install_headers(taveml_platform_headers platform/include ${taveml_platform_includedir})
set_target_properties(taveml_platform_headers PROPERTIES EXPORT_NAME platform_headers)

# The libraries find each other, and the tool finds them, wherever the prefix is. A distribution
# that installs where the loader looks anyway sets CMAKE_SKIP_INSTALL_RPATH.
#
# In the build folder they lie to each other as they do in the prefix. Else CMake would leave room
# in the search path for the one to come, with empty entries: the folder that a program is started in.
set(taveml_libraries taveml utlbase tavdbglog)
if(TARGET tavplatform)
  list(APPEND taveml_libraries tavplatform)
endif()
set(taveml_build_libdir ${PROJECT_BINARY_DIR}/lib)
function(taveml_search_path target path)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH ${path})
  if(NOT CMAKE_SKIP_INSTALL_RPATH)
    set_target_properties(${target} PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
  endif()
endfunction()
if(TAVEML_TOOL)
  file(RELATIVE_PATH taveml_bin_to_lib
    ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  cmake_path(ABSOLUTE_PATH taveml_bin_to_lib BASE_DIRECTORY ${PROJECT_BINARY_DIR}/tool NORMALIZE
    OUTPUT_VARIABLE taveml_build_libdir)
  cmake_path(IS_PREFIX PROJECT_BINARY_DIR ${taveml_build_libdir} taveml_is_inside)
  if(CMAKE_SKIP_INSTALL_RPATH)
    set(taveml_build_libdir ${PROJECT_BINARY_DIR}/lib)
  elseif(NOT taveml_is_inside)
    message(FATAL_ERROR "CMAKE_INSTALL_BINDIR and CMAKE_INSTALL_LIBDIR lie too far from each other; "
                        "CMAKE_SKIP_INSTALL_RPATH does without a search path")
  endif()
  taveml_search_path(tavmail "$ORIGIN/${taveml_bin_to_lib}")
  # The tool finds its modules by the path from itself to there, in the build folder too.
  set_target_properties(${taveml_tool_modules} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${taveml_build_libdir}/tavmail)
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/tool/module.cpp
    TARGET_DIRECTORY taveml_tool_objects APPEND PROPERTY
    COMPILE_DEFINITIONS TAVMAIL_MODULES="${taveml_bin_to_lib}/tavmail")
  install(TARGETS ${taveml_tool_modules}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/tavmail COMPONENT tool)
  install(TARGETS tavmail RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  install(TARGETS tavmail-host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
endif()
taveml_search_path(taveml "$ORIGIN")
set_target_properties(${taveml_libraries} PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${taveml_build_libdir})

# The tool prints its completion scripts; a tool for another machine cannot run here.
if(TAVEML_TOOL AND NOT CMAKE_CROSSCOMPILING)
  function(taveml_install_completion shell folder name)
    set(script ${PROJECT_BINARY_DIR}/completion/${shell}/${name})
    add_custom_command(OUTPUT ${script}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/completion/${shell}
      COMMAND tavmail completion ${shell} > ${script} DEPENDS tavmail VERBATIM)
    add_custom_target(taveml_completion_${shell} ALL DEPENDS ${script})
    install(FILES ${script} DESTINATION ${CMAKE_INSTALL_DATADIR}/${folder} COMPONENT tool)
  endfunction()
  taveml_install_completion(bash bash-completion/completions tavmail)
  taveml_install_completion(zsh zsh/vendor-completions _tavmail)
  taveml_install_completion(fish fish/vendor_completions.d tavmail.fish)
endif()

# Documents, if they exist: manual pages by section, everything else unchanged.
foreach(section 1 3 5 7)
  file(GLOB taveml_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.${section})
  install(FILES ${taveml_pages}
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT documentation)
endforeach()
# The other documents keep their folders, so that their links work.
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
              ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md ${PROJECT_SOURCE_DIR}/SECURITY.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(FILES ${PROJECT_SOURCE_DIR}/platform/linux/README.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/platform/linux COMPONENT documentation)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
  PATTERN "man" EXCLUDE PATTERN "Doxyfile" EXCLUDE PATTERN "*.py" EXCLUDE)

# A device that brings its own platform libraries has a build that knows where they are: the packages
# below describe the port that is built here.
if(NOT TARGET tavplatform)
  return()
endif()

taveml_search_path(tavplatform "$ORIGIN")
taveml_install_headers(taveml_posix_headers platform/posix/include ${taveml_platform_includedir})
set_target_properties(taveml_posix_headers PROPERTIES EXPORT_NAME posix_headers)
install(TARGETS taveml_platform utlbase tavdbglog tavplatform EXPORT taveml
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
    NAMELINK_COMPONENT development)
set(taveml_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/taveml)
install(EXPORT taveml NAMESPACE taveml:: FILE taveml-targets.cmake
  DESTINATION ${taveml_cmakedir} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/taveml-config.cmake.in
  ${PROJECT_BINARY_DIR}/taveml-config.cmake INSTALL_DESTINATION ${taveml_cmakedir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/taveml-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/taveml-config.cmake
              ${PROJECT_BINARY_DIR}/taveml-config-version.cmake
  DESTINATION ${taveml_cmakedir} COMPONENT development)

# pkg-config derives the prefix from the location of its file. A distribution's does not move, and
# plain paths let pkg-config leave out the folders that the compiler searches anyway.
file(RELATIVE_PATH taveml_pc_to_prefix
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
set(taveml_pc_prefix "\${pcfiledir}/${taveml_pc_to_prefix}")
if(CMAKE_SKIP_INSTALL_RPATH)
  set(taveml_pc_prefix ${CMAKE_INSTALL_PREFIX})
endif()
file(RELATIVE_PATH taveml_pc_libdir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH taveml_pc_includedir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
foreach(module taveml taveml-platform)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${module}.pc.in
    ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
