# Message catalogs for programs that use zvlog.
#
#   zvlog_add_catalog(<target> [SOURCES <file>...] [APPLICATION <name>]
#                     [DESTINATION <dir> | NO_INSTALL])
#
# Builds the catalog the program's message factory looks for: the library's
# own messages plus the program's, if any, compiled with genrb and packaged
# with pkgdata. The file is "<APPLICATION>.dat" for a program that exports a
# build context naming that application (ZVLOG_DEFINE_BUILD_CONTEXT), and
# "zvMessage.dat" for one that exports none. It is put beside the program
# whenever the program is built, and installed to DESTINATION (default: the
# binary directory of GNUInstallDirs) with it, unless NO_INSTALL.
#
# Each SOURCES file holds catalog entries in the form of the library's own
# catalog (numbered messages, code severities, ...) without the surrounding
# "root:table { }": they are added at the end of the library's table.
include_guard(GLOBAL)
include(GNUInstallDirs)

set(ZVLOG_CATALOG_MODULE_DIR ${CMAKE_CURRENT_LIST_DIR} CACHE INTERNAL "Where zvlogCatalog.cmake is")

# Compiles <root> (a whole catalog text) plus the entries of each source into
# the package file <output>. Used for the library's own catalog too.
function(zvlog_compile_catalog output root)
  find_program(ZVLOG_GENRB genrb REQUIRED)
  find_program(ZVLOG_PKGDATA pkgdata REQUIRED)
  get_filename_component(name ${output} NAME_WE)
  string(MD5 key ${output})
  set(work ${CMAKE_CURRENT_BINARY_DIR}/zvlog_catalog_work/${key})
  file(MAKE_DIRECTORY ${work})
  string(REPLACE ";" "|" sources "${ARGN}")  # one argument on the command line
  add_custom_command(
    OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${work}/res ${work}/pkg
    COMMAND ${CMAKE_COMMAND} -DROOT=${root} "-DSOURCES=${sources}" -DOUTPUT=${work}/root.txt
            -P ${ZVLOG_CATALOG_MODULE_DIR}/zvlogMergeCatalog.cmake
    COMMAND ${ZVLOG_GENRB} -q -e UTF-8 -d ${work}/res ${work}/root.txt
    COMMAND ${CMAKE_COMMAND} -E echo root.res > ${work}/list.txt
    COMMAND ${ZVLOG_PKGDATA} -q -p zvMessage -m common -d ${work}/pkg -s ${work}/res ${work}/list.txt
    COMMAND ${CMAKE_COMMAND} -E copy ${work}/pkg/zvMessage.dat ${output}
    DEPENDS ${root} ${ARGN} ${ZVLOG_CATALOG_MODULE_DIR}/zvlogMergeCatalog.cmake
    WORKING_DIRECTORY ${work}
    COMMENT "Compiling the message catalog ${name}.dat"
    VERBATIM)
endfunction()

function(zvlog_add_catalog target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "NO_INSTALL" "APPLICATION;DESTINATION" "SOURCES")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "zvlog_add_catalog: unknown arguments ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT TARGET ${target})
    message(FATAL_ERROR "zvlog_add_catalog: ${target} is not a target")
  endif()
  if(NOT ZVLOG_CATALOG_ROOT)
    message(FATAL_ERROR "zvlog_add_catalog: ZVLOG_CATALOG_ROOT (the library's catalog text) is not set")
  endif()
  set(name zvMessage)
  if(arg_APPLICATION)
    set(name ${arg_APPLICATION})
  endif()
  if(NOT arg_DESTINATION)
    set(arg_DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
  set(sources "")
  foreach(source ${arg_SOURCES})
    get_filename_component(source ${source} ABSOLUTE)
    list(APPEND sources ${source})
  endforeach()

  set(dat ${CMAKE_CURRENT_BINARY_DIR}/zvlog_catalogs/${target}/${name}.dat)
  zvlog_compile_catalog(${dat} ${ZVLOG_CATALOG_ROOT} ${sources})
  add_custom_target(${target}_zvlog_catalog DEPENDS ${dat})
  add_dependencies(${target} ${target}_zvlog_catalog)
  # A new catalog relinks the program, and every link puts the catalog
  # beside it.
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${dat})
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${dat} $<TARGET_FILE_DIR:${target}>/${name}.dat
    VERBATIM)
  if(NOT arg_NO_INSTALL)
    install(FILES ${dat} DESTINATION ${arg_DESTINATION})
  endif()
endfunction()
