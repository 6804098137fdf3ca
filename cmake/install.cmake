# What `cmake --install` puts where (GNUInstallDirs layout), and how a
# consumer finds it: pkg-config files and a CMake package with the imported
# targets Arbor::arbor, Arbor::support, Arbor::net, Arbor::scripted and
# Arbor::headers.
#
# Every file belongs to one of three components, which are also the Debian
# packages of cmake/package.cmake:
#   runtime  libarbor.so.<major>, libarbor-support.so.<major>,
#            libarbor-net.so.<major>: what a host needs at run time
#   dev      headers, the unversioned .so links, pkg-config files, the CMake
#            package, the scripted transport (a testing aid, not a runtime
#            road) and the example host and sample drivers as sources
#   tools    arbor-peer
#
# Installed files carry no run path of this build tree: CMake drops the build
# run path on install. arbor-peer alone gets $ORIGIN/../<libdir>, which finds
# the libraries beside it under whatever prefix it was installed.
include(CMakePackageConfigHelpers)

set(ARBOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Arbor)

install(TARGETS arbor arbor-support arbor-net
  EXPORT ArborTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime
    NAMELINK_COMPONENT dev)
install(TARGETS arbor-transport-scripted
  EXPORT ArborTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(TARGETS arbor-headers EXPORT ArborTargets)
set_target_properties(arbor-headers PROPERTIES EXPORT_NAME headers)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/arbor
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/arbor/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/arbor COMPONENT dev)

# The CMake package: relocatable, so it works from a scratch root too.
install(EXPORT ArborTargets
  NAMESPACE Arbor::
  DESTINATION ${ARBOR_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ArborConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ArborConfig.cmake
  INSTALL_DESTINATION ${ARBOR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ArborConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ArborConfig.cmake
              ${PROJECT_BINARY_DIR}/ArborConfigVersion.cmake
  DESTINATION ${ARBOR_CMAKE_DIR} COMPONENT dev)

# pkg-config: one file per library. The prefix is found from the file's own
# place (${pcfiledir}), so the files work wherever the tree is unpacked.
set(ARBOR_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH ARBOR_PC_TO_PREFIX /${ARBOR_PC_DIR} /)
string(REGEX REPLACE "/$" "" ARBOR_PC_TO_PREFIX "${ARBOR_PC_TO_PREFIX}")
# arbor_pkg_config(name library description requires)
function(arbor_pkg_config name library description requires)
  set(ARBOR_PC_NAME ${name})
  set(ARBOR_PC_LIBRARY ${library})
  set(ARBOR_PC_DESCRIPTION "${description}")
  set(ARBOR_PC_REQUIRES "${requires}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/arbor.pc.in
    ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc
    DESTINATION ${ARBOR_PC_DIR} COMPONENT dev)
endfunction()
arbor_pkg_config(arbor-support arbor-support
  "Arbor support library: dictionary text, log, read-write lock, digest" "")
arbor_pkg_config(arbor arbor
  "Arbor peer engine (link a transport beside it: arbor-net or arbor-scripted)"
  "arbor-support")
arbor_pkg_config(arbor-net arbor-net
  "Arbor socket transport: LAN peers over TCP, the service over TLS"
  "arbor-support")
arbor_pkg_config(arbor-scripted arbor-transport-scripted
  "Arbor scripted transport, driven by hand in tests" "arbor-support")

if(TARGET arbor-peer)
  set_target_properties(arbor-peer PROPERTIES
    INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS arbor-peer RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

# Sources to start from: the smallest host and the sample drivers, each
# driver's table written slot by slot.
set(ARBOR_EXAMPLES_DIR ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/embed
  DESTINATION ${ARBOR_EXAMPLES_DIR} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/drivers/
  DESTINATION ${ARBOR_EXAMPLES_DIR}/drivers COMPONENT dev
  FILES_MATCHING PATTERN "*.c" PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/docs/embedding.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
