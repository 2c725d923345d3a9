# What `cmake --install` lays out, in three components that become the Debian
# packages (cmake/package.cmake):
#   runtime  the two shared libraries, keepstone.conf(5)
#   dev      headers under include/kscdp/, the .so links, kscdp.pc, the CMake
#            package, the section 3 pages
#   tools    the simulators and the doctor, section 1 pages, the Prometheus
#            alerting rules, the metrics file's description (doc/metrics.md)
# Every install() names its component: CPack packs only these three.

# Debian's multiarch library directory whatever the prefix, so an installed
# tree is laid out like the packages and pkg-config and find_package search it.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH "Object code libraries (LIBDIR)")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

get_target_property(KSCDP_SOVERSION kscdp SOVERSION)
set(KSCDP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kscdp)
set(KSCDP_PACKAGE_NAME_runtime libkscdp${KSCDP_SOVERSION})
set(KSCDP_PACKAGE_NAME_dev libkscdp-dev)
set(KSCDP_PACKAGE_NAME_tools kscdp-tools)

install(TARGETS kscdp kscdp_platform
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS kscdp-master-sim kscdp-engine-sim kscdp-doctor
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES doc/kscdp.rules.yml DESTINATION ${CMAKE_INSTALL_DATADIR}/kscdp COMPONENT tools)
install(DIRECTORY include/kscdp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES doc/metrics.md
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${KSCDP_PACKAGE_NAME_tools} COMPONENT tools)

# pkg-config: the prefix relative to the file's own directory.
file(RELATIVE_PATH KSCDP_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KSCDP_PC_TO_PREFIX "${KSCDP_PC_TO_PREFIX}")
configure_file(engine/kscdp.pc.in ${CMAKE_BINARY_DIR}/kscdp.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kscdp.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The CMake package; any 1.x satisfies find_package(kscdp 1).
configure_package_config_file(cmake/kscdpConfig.cmake.in
  ${CMAKE_BINARY_DIR}/cmake/kscdpConfig.cmake
  INSTALL_DESTINATION ${KSCDP_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
# CMake writes the version file from a template of its own; the installed
# copy starts with the licence line, as kscdpConfig.cmake and kscdp.pc do.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/kscdpConfigVersion.cmake.unlabelled
  COMPATIBILITY SameMajorVersion)
file(READ ${CMAKE_BINARY_DIR}/cmake/kscdpConfigVersion.cmake.unlabelled KSCDP_VERSION_FILE_TEXT)
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/cmake/kscdpConfigVersion.cmake
  CONTENT "# SPDX-License-Identifier: MIT\n${KSCDP_VERSION_FILE_TEXT}" @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/cmake/kscdpConfig.cmake ${CMAKE_BINARY_DIR}/cmake/kscdpConfigVersion.cmake
  DESTINATION ${KSCDP_CMAKE_DIR} COMPONENT dev)

# Manual pages, gzipped, each in the component of its section.
find_program(GZIP gzip REQUIRED)
set(KSCDP_MAN_PAGES
  ${PROJECT_SOURCE_DIR}/man/keepstone.conf.5
  ${PROJECT_SOURCE_DIR}/man/kscdp-doctor.1
  ${PROJECT_SOURCE_DIR}/man/kscdp-engine-sim.1
  ${PROJECT_SOURCE_DIR}/man/kscdp-master-sim.1
  ${PROJECT_SOURCE_DIR}/man/libkscdp.3)
set(KSCDP_MAN_COMPONENT_1 tools)
set(KSCDP_MAN_COMPONENT_3 dev)
set(KSCDP_MAN_COMPONENT_5 runtime)
set(KSCDP_COMPRESSED_DOCS)
foreach(page IN LISTS KSCDP_MAN_PAGES)
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${name})
  set(compressed ${CMAKE_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${GZIP} -9nc ${page} > ${compressed}
    DEPENDS ${page} VERBATIM)
  list(APPEND KSCDP_COMPRESSED_DOCS ${compressed})
  install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
    COMPONENT ${KSCDP_MAN_COMPONENT_${section}})
endforeach()

# Each package's copyright and changelog, as Debian expects them.
set(KSCDP_CHANGELOG ${CMAKE_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(OUTPUT ${KSCDP_CHANGELOG}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
  COMMAND ${GZIP} -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog > ${KSCDP_CHANGELOG}
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
list(APPEND KSCDP_COMPRESSED_DOCS ${KSCDP_CHANGELOG})
add_custom_target(kscdp_docs ALL DEPENDS ${KSCDP_COMPRESSED_DOCS})

foreach(component runtime dev tools)
  install(FILES packaging/copyright ${KSCDP_CHANGELOG}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${KSCDP_PACKAGE_NAME_${component}} COMPONENT ${component})
endforeach()
