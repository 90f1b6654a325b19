# Installation: headers under include/qvlkern, the library with its SONAME
# links, a CMake package (qvlkern::qvlkern) and a pkg-config file. Two
# components, as the Debian packages split them: "runtime" (the library
# with its SONAME link) and "dev" (everything that builds against it).
include(CMakePackageConfigHelpers)

install(TARGETS qvlkern EXPORT qvlkernTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${QVLKERN_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qvlkern COMPONENT dev)

# Consumers include <qvlkern/kern.h>; the headers include each other by
# their bare names, which resolves inside the qvlkern directory.
set(QVLKERN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvlkern)
install(EXPORT qvlkernTargets NAMESPACE qvlkern:: DESTINATION ${QVLKERN_CMAKE_DIR} COMPONENT dev)
# The interface carries Boost types (shared_ptr, function, ptime), so a
# consumer uses the Boost the library was built with.
set(QVLKERN_BOOST_VERSION ${Boost_VERSION_MAJOR}.${Boost_VERSION_MINOR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qvlkernConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qvlkernConfig.cmake INSTALL_DESTINATION ${QVLKERN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qvlkernConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvlkernConfig.cmake
              ${PROJECT_BINARY_DIR}/qvlkernConfigVersion.cmake
        DESTINATION ${QVLKERN_CMAKE_DIR} COMPONENT dev)

configure_file(${PROJECT_SOURCE_DIR}/cmake/qvlkern.pc.in ${PROJECT_BINARY_DIR}/qvlkern.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvlkern.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
