# `make package`: the install components of cmake/install.cmake as Debian
# packages, named after Debian's library conventions. Dependencies on other
# packages come from the binaries (dpkg-shlibdeps), plus the ones no linker
# sees: the -dev package and the tools need this very libkscdp1.
set(KSCDP_MAINTAINER "kscdp developers <kscdp@example.org>" CACHE STRING
  "Maintainer named in the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kscdp)
set(CPACK_PACKAGE_VENDOR "kscdp developers")
set(CPACK_PACKAGE_CONTACT ${KSCDP_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${KSCDP_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libkscdp.so links the platform library beside it, which no installed
# package provides while the packages are made: dpkg-shlibdeps finds it in
# the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(KSCDP_SAME_RUNTIME "${KSCDP_PACKAGE_NAME_runtime} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${KSCDP_PACKAGE_NAME_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
# The loader's cache is refreshed through libc's trigger (packaging/triggers),
# so the ldconfig calls that CPack writes into the maintainer scripts are taken
# out once the package is made. packaging/symbols lists every symbol the two
# libraries export, with the release that brought it (dpkg-gensymbols); the
# test package.symbols holds it to the built libraries.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/symbols
  ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_KSCDP_RUNTIME_PACKAGE ${KSCDP_PACKAGE_NAME_runtime})
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/deb_without_ldconfig_calls.cmake)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Keepstone CDP backup engine library
libkscdp is the library that a continuous-data-protection backup engine
loads to reach the master server of its Keepstone backup domain: it raises
alerts as notification events on the master's message broker, requests one
manual backup per protected virtual machine through the master's request
daemon, largest first, and follows those backups through the master's REST
jobs interface.
.
This package holds libkscdp.so.1 and the platform library it runs on.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${KSCDP_PACKAGE_NAME_dev})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ${KSCDP_SAME_RUNTIME})
set(CPACK_DEBIAN_DEV_DESCRIPTION "Keepstone CDP backup engine library - development files
libkscdp is the library that a continuous-data-protection backup engine
loads to reach the master server of its Keepstone backup domain.
.
This package holds what an engine is built with: the C headers, the
libkscdp.so link, the pkg-config file kscdp.pc, the CMake package
(find_package(kscdp) gives kscdp::kscdp) and the libkscdp(3) manual page.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${KSCDP_PACKAGE_NAME_tools})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${KSCDP_SAME_RUNTIME})
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Keepstone CDP backup engine library - tools
libkscdp is the library that a continuous-data-protection backup engine
loads to reach the master server of its Keepstone backup domain.
.
This package holds the programs that go with it: kscdp-doctor, which checks
whether this host can reach its master (configuration, name, REST interface,
request daemon, broker, log and outbox) and says what to do about a broken
link; kscdp-master-sim, a simulated master server (REST jobs interface and
request daemon) for tests and demonstrations; and kscdp-engine-sim, which
loads libkscdp.so.1 and drives it the way the backup engine does.")

include(CPack)
