# Debian packages, built by `cpack -G DEB` (scripts/package.sh):
#   libqvlkern1     the shared library (section libs), named after its SONAME
#   libqvlkern-dev  headers, development link, CMake package, pkg-config file
# The package version is the project's version with the Debian revision
# below; cmake/debian/changelog must begin with that same version.
set(QVLKERN_DEBIAN_REVISION 1)
set(QVLKERN_DEBIAN_VERSION ${PROJECT_VERSION}-${QVLKERN_DEBIAN_REVISION})
set(QVLKERN_MAINTAINER "Quarvel qvlkern developers <qvlkern@quarvel.example>")

file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/debian/changelog QVLKERN_CHANGELOG_TOP LIMIT_COUNT 1)
if(NOT QVLKERN_CHANGELOG_TOP MATCHES "^qvlkern \\(${QVLKERN_DEBIAN_VERSION}\\) ")
  message(FATAL_ERROR "cmake/debian/changelog begins with \"${QVLKERN_CHANGELOG_TOP}\"; "
                      "its first entry must be version ${QVLKERN_DEBIAN_VERSION}")
endif()

# Each package carries the copyright file and the compressed changelog in
# its documentation folder, as Debian requires.
set(QVLKERN_CHANGELOG_GZ ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/debian)
execute_process(COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/cmake/debian/changelog
                OUTPUT_FILE ${QVLKERN_CHANGELOG_GZ} COMMAND_ERROR_IS_FATAL ANY)
foreach(component_package runtime:libqvlkern1 dev:libqvlkern-dev)
  string(REPLACE ":" ";" pair ${component_package})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright ${QVLKERN_CHANGELOG_GZ}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
  # lintian's overrides, each with its reason
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/${package}.lintian-overrides RENAME ${package}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qvlkern)
set(CPACK_PACKAGE_VENDOR Quarvel)
set(CPACK_PACKAGE_CONTACT ${QVLKERN_MAINTAINER})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${QVLKERN_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${QVLKERN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqvlkern1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
# the shlibs control file: programs built against this version need at least it
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig runs from a trigger, not from maintainer scripts
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/ldconfig-trigger.cmake)
# (the synopsis line is the project's description, for both packages)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "qvlkern is the operating-system abstraction layer and base runtime of the
Quarvel management agent: exceptions with cause chains, logging with
rotation and compression, counted synchronisation primitives and named
threads, a string slice with strict number parsing, Unicode text services,
time values, a cache of loadable modules and system services.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqvlkern-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_MULTIARCH same)
# the exported headers include Boost's (of the version the library was
# built with, as its types are part of the interface) and nothing else
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libqvlkern1 (= ${QVLKERN_DEBIAN_VERSION}), libboost${Boost_VERSION_MAJOR}.${Boost_VERSION_MINOR}-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "qvlkern is the operating-system abstraction layer and base runtime of the
Quarvel management agent: exceptions with cause chains, logging with
rotation and compression, counted synchronisation primitives and named
threads, a string slice with strict number parsing, Unicode text services,
time values, a cache of loadable modules and system services.
.
This package holds the headers, the development link, the CMake package
(find_package(qvlkern)) and the pkg-config file.")

include(CPack)
