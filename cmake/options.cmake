# SPDX-License-Identifier: Apache-2.0
# tesk_options: the warnings and sanitizers of all our sources. In several sources compiled as one, a local name
# may be that of another source's variable: scripts/lint compiles each source by itself, and finds what is shadowed.
set(TESK_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them")
option(TESK_WERROR "Warnings are errors; a distribution has other compilers" ON)
option(TESK_COVERAGE "Build for a line coverage report" OFF)

add_library(tesk_options INTERFACE)
target_compile_options(tesk_options INTERFACE
  -Wall -Wextra $<$<NOT:$<BOOL:${TESK_UNITY}>>:-Wshadow> -Wconversion -Wmissing-declarations $<$<BOOL:${TESK_WERROR}>:-Werror>
  -fno-common)
target_include_directories(tesk_options INTERFACE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})

if(TESK_SANITIZE)
  add_compile_options(-fsanitize=${TESK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TESK_SANITIZE})
endif()
if(TESK_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

# tesk_export_only(TARGET): the shared library exports the names of its TARGET.map and no others. The
# map is an anonymous version script: a named node would make the loader refuse a replacement that has
# none.
function(tesk_export_only target)
  set(map ${CMAKE_CURRENT_SOURCE_DIR}/${target}.map)
  target_link_options(${target} PRIVATE LINKER:--version-script=${map})
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${map} INSTALL_RPATH "$ORIGIN")
endfunction()

# tesk_install_man(PAGE COMPONENT..): installs a manual page with the version of the project in it.
function(tesk_install_man page)
  cmake_path(GET page FILENAME name)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(SUBSTRING ${section} 1 -1 section)
  configure_file(${page} ${CMAKE_CURRENT_BINARY_DIR}/man/${name} @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/man/${name}
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} ${ARGN})
endfunction()
