# Manual pages of the tools, generated at build time from each program's --help
# with help2man, so that a page never lists other options than the program
# takes. A file PROGRAM.h2m beside the program's sources adds sections that
# --help does not hold (environment, files, examples).

find_program(HELP2MAN help2man)
find_program(GZIP gzip)
if(NOT HELP2MAN OR NOT GZIP)
  message(STATUS "help2man or gzip not found: the manual pages are not built (scripts/install-deps)")
elseif(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(STATUS "Cross build without an emulator: the manual pages are not built")
endif()

# db_intf_add_man_page(PROGRAM SUMMARY): builds man/PROGRAM.1.gz in the build
# tree from target PROGRAM, with SUMMARY as the text of its NAME section, and
# installs it into section 1 with the tools.
function(db_intf_add_man_page program summary)
  if(NOT HELP2MAN OR NOT GZIP OR (CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR))
    return()
  endif()
  set(page ${CMAKE_BINARY_DIR}/man/${program}.1)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
  # help2man runs the program itself and names the page after it; a cross
  # build gives it a script of the same name that runs the program under the
  # emulator.
  set(runner $<TARGET_FILE:${program}>)
  if(CMAKE_CROSSCOMPILING)
    set(runner ${CMAKE_BINARY_DIR}/man/run/${program})
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    file(GENERATE OUTPUT ${runner}
         CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:${program}> \"$@\"\n"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                          WORLD_READ WORLD_EXECUTE)
  endif()
  set(include_file ${CMAKE_CURRENT_SOURCE_DIR}/${program}.h2m)
  set(include_args)
  set(include_deps)
  if(EXISTS ${include_file})
    set(include_args --include=${include_file})
    set(include_deps ${include_file})
  endif()
  add_custom_command(
    OUTPUT ${page}.gz
    COMMAND ${HELP2MAN} --no-info --section=1 --name=${summary}
            --version-string=${PROJECT_VERSION} "--source=libdb-intf ${PROJECT_VERSION}" ${include_args}
            --output=${page} ${runner}
    COMMAND ${GZIP} -9nf ${page}
    DEPENDS ${program} ${include_deps}
    COMMENT "Generating the manual page of ${program}"
    VERBATIM)
  add_custom_target(${program}-man ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()
