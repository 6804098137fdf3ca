# Debian packages through CPack (`./scripts/package.sh` builds them):
#   libarbor0     the runtime component: the engine, the support library and
#                 the socket transport, libNAME.so.<major> — what a device
#                 ships; its name carries the soname's major, so two majors
#                 install side by side
#   libarbor-dev  the dev component: headers, .so links, pkg-config files,
#                 the CMake package, the scripted transport, examples
#   arbor-tools   the tools component: arbor-peer
# Run-time dependencies on other packages (libssl3, GStreamer, libstdc++)
# come from dpkg-shlibdeps, so they follow what the binaries really link.
set(CPACK_PACKAGE_NAME arbor)
set(CPACK_PACKAGE_VENDOR "Arbor")
set(CPACK_PACKAGE_CONTACT "Arbor developers <arbor@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Peer engine for networked Linux devices")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET arbor-peer)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The packages of this build depend on each other through the component
# dependencies below; dpkg-shlibdeps is shown where this build's own
# libraries are, so that it can read them for theirs.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)
foreach(library arbor arbor-support arbor-net arbor-transport-scripted)
  get_target_property(library_dir ${library} BINARY_DIR)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${library_dir})
endforeach()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libarbor${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Arbor peer engine: runtime libraries\n The engine (libarbor), its support library and the socket transport.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libarbor-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Arbor peer engine: development files\n Headers, pkg-config files, the CMake package, the scripted transport for tests, an example host and sample drivers.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME arbor-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
# What arbor-peer's GStreamer bridge plays and decodes with; it runs without.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS
  "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly, gstreamer1.0-libav")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "Arbor peer engine: arbor-peer\n Serve, dial, list peers and watch a running peer's session forest.")

include(CPack)
