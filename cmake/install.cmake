# What `cmake --install` puts under the prefix: both libraries, the header,
# the tool and its man page, a CMake package and a pkg-config file, all
# carrying the version of the project() line.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS brivanta brivanta_static brivanta_tool EXPORT BrivantaTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/brivanta.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES tools/brivanta.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

set(BRIVANTA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Brivanta)
install(EXPORT BrivantaTargets NAMESPACE Brivanta:: DESTINATION ${BRIVANTA_CMAKE_DIR})
configure_file(cmake/BrivantaConfig.cmake.in ${CMAKE_BINARY_DIR}/BrivantaConfig.cmake COPYONLY)
# A new major version is a new SONAME: callers built against another major
# must not find this one.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/BrivantaConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/BrivantaConfig.cmake ${CMAKE_BINARY_DIR}/BrivantaConfigVersion.cmake
        DESTINATION ${BRIVANTA_CMAKE_DIR})

# The .pc file finds the prefix from its own place (lib/pkgconfig or the
# multiarch lib/<triplet>/pkgconfig), so `--prefix` at install time holds.
string(REGEX REPLACE "[^/]+" ".." BRIVANTA_PC_UP "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
configure_file(cmake/brivanta.pc.in ${CMAKE_BINARY_DIR}/brivanta.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/brivanta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
