# Manual pages made at build time by help2man from a program's --help, and
# installed under man1. help2man runs the program, so a cross build makes
# them only through CMAKE_CROSSCOMPILING_EMULATOR.
include(GNUInstallDirs)
find_program(TAMREL_HELP2MAN help2man)
set(TAMREL_MAN_PAGES ON)
if(NOT TAMREL_HELP2MAN)
  message(STATUS "Manual pages: help2man not found, none are made (Debian package help2man)")
  set(TAMREL_MAN_PAGES OFF)
elseif(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(STATUS "Manual pages: cross-compiling without an emulator, none are made")
  set(TAMREL_MAN_PAGES OFF)
elseif(CMAKE_CROSSCOMPILING AND CMAKE_VERSION VERSION_LESS 3.20)
  message(STATUS "Manual pages: cross-compiling needs CMake 3.20 for them, none are made")
  set(TAMREL_MAN_PAGES OFF)
endif()

# tamrel_man_page(TARGET DESCRIPTION [COMPONENT NAME] [EXCLUDE_FROM_ALL])
# Makes TARGET.1 from `TARGET --help`, DESCRIPTION being the line of its NAME
# section, and installs it as the program is (same COMPONENT and EXCLUDE_FROM_ALL).
function(tamrel_man_page target description)
  cmake_parse_arguments(PARSE_ARGV 2 MAN "EXCLUDE_FROM_ALL" "COMPONENT" "")
  if(NOT TAMREL_MAN_PAGES)
    return()
  endif()
  set(page ${CMAKE_BINARY_DIR}/man/${target}.1)
  # help2man takes one program path and names the page after it: with an
  # emulator, a wrapper script of the program's name runs it.
  set(program $<TARGET_FILE:${target}>)
  if(CMAKE_CROSSCOMPILING)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    set(program ${CMAKE_BINARY_DIR}/man/run/${target})
    file(GENERATE OUTPUT ${program}
      CONTENT "#!/bin/sh\nexec ${emulator} '$<TARGET_FILE:${target}>' \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  endif()
  # The version is the project's: not every program answers --version.
  add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${TAMREL_HELP2MAN} --no-info --section=1 "--name=${description}"
      "--version-string=${PROJECT_VERSION}" "--source=tamrel ${PROJECT_VERSION}"
      --output=${page} ${program}
    DEPENDS ${target}
    COMMENT "Manual page ${target}.1"
    VERBATIM)
  add_custom_target(${target}-man ALL DEPENDS ${page})
  set(where)
  if(MAN_COMPONENT)
    list(APPEND where COMPONENT ${MAN_COMPONENT})
  endif()
  if(MAN_EXCLUDE_FROM_ALL)
    list(APPEND where EXCLUDE_FROM_ALL)
  endif()
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 ${where})
endfunction()
