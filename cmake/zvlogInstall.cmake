# What `cmake --install` puts under the prefix (GNUInstallDirs layout):
#
#   include/zvlog/...                 the public headers, generated ones too
#   <libdir>/libzvlog.so*             the library with its SONAME links
#   <libdir>/zvlog/zvMessage.dat      the library's catalog
#   <libdir>/zvlog/icu/...            the ICU converters the library brings
#   <libdir>/cmake/zvlog/             the CMake package (zvlog::zvlog and
#                                     zvlog_add_catalog)
#   <libdir>/pkgconfig/zvlog.pc       for pkg-config
#   share/zvlog/catalog/root.txt      the catalog text programs' catalogs
#                                     are compiled from
#
# The library finds its data from its own location, so the prefix can be
# anywhere.
include(CMakePackageConfigHelpers)

set(ZVLOG_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zvlog)
set(ZVLOG_INSTALL_DATADIR ${CMAKE_INSTALL_LIBDIR}/zvlog)
set(ZVLOG_INSTALL_CATALOG_ROOT ${CMAKE_INSTALL_DATADIR}/zvlog/catalog/root.txt)

install(TARGETS zvlog EXPORT zvlogTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zvlog DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${ZVLOG_CATALOG_DAT} DESTINATION ${ZVLOG_INSTALL_DATADIR})
install(DIRECTORY ${PROJECT_BINARY_DIR}/icu DESTINATION ${ZVLOG_INSTALL_DATADIR})
install(FILES ${ZVLOG_CATALOG_ROOT} DESTINATION ${CMAKE_INSTALL_DATADIR}/zvlog/catalog)

install(EXPORT zvlogTargets NAMESPACE zvlog:: DESTINATION ${ZVLOG_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zvlogConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zvlogConfig.cmake
  INSTALL_DESTINATION ${ZVLOG_INSTALL_CMAKEDIR}
  PATH_VARS ZVLOG_INSTALL_CATALOG_ROOT)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zvlogConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zvlogConfig.cmake ${PROJECT_BINARY_DIR}/zvlogConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/zvlogCatalog.cmake ${PROJECT_SOURCE_DIR}/cmake/zvlogMergeCatalog.cmake
  DESTINATION ${ZVLOG_INSTALL_CMAKEDIR})

# pkg-config: the prefix is found from where the file itself is installed
# (pkg-config's ${pcfiledir}), so `cmake --install --prefix` anywhere works.
file(RELATIVE_PATH ZVLOG_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" ZVLOG_PC_PREFIX "\${pcfiledir}/${ZVLOG_PC_PREFIX}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(ZVLOG_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(ZVLOG_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(ZVLOG_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(ZVLOG_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/zvlog.pc.in ${PROJECT_BINARY_DIR}/zvlog.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zvlog.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
