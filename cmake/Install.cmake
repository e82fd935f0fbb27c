# Installing the library for an agent project to consume, and the Debian packages.
#
#   cmake --install build/default --prefix PREFIX
#
# puts under PREFIX:
#   lib/<multiarch>/ObaEvpn/   libObaEvpn.so and the platform libraries it links (Kiv, Mox, Shoal,
#                              Model), versioned with their SONAME. A directory of their own: the
#                              platform libraries stand in for the switch OS's, and their plain
#                              names must not collide with anything else in the system's lib dir.
#   include/ObaEvpn/           one include root: Oba/, ObaEvpn/, Kiv/, Mox/, Shoal/ and the model's
#                              Quil/, Bridging/, Tunnel/, Evpn/, L2Rib/, Mpls/
#   lib/<multiarch>/cmake/ObaEvpn/   ObaEvpnConfig.cmake, its version file and the exported
#                              targets ObaEvpn::ObaEvpn, ObaEvpn::Kiv, ObaEvpn::Mox, ObaEvpn::Shoal,
#                              ObaEvpn::Model
#   lib/<multiarch>/pkgconfig/obaevpn.pc
#   bin/oba-evpn-sim, bin/oba-evpn-show, share/oba-evpn-sim/scenarios/
#                                                     (the simulator, its own component)
#
# Components: "library" (all of the library's files) and "simulator"; `cpack -G DEB` in the build
# folder makes one Debian package of each.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(OBA_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR}/ObaEvpn)
set(OBA_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ObaEvpn)
set(OBA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ObaEvpn)

foreach(lib Kiv Mox Shoal Model ObaEvpn)
  target_include_directories(${lib} INTERFACE $<INSTALL_INTERFACE:${OBA_INSTALL_INCLUDEDIR}>)
  # The libraries find each other beside themselves wherever the prefix is.
  set_target_properties(${lib} PROPERTIES INSTALL_RPATH "$ORIGIN")
endforeach()

install(TARGETS Kiv Mox Shoal Model ObaEvpn
  EXPORT ObaEvpnTargets
  LIBRARY DESTINATION ${OBA_INSTALL_LIBDIR} COMPONENT library
  INCLUDES DESTINATION ${OBA_INSTALL_INCLUDEDIR})

# Every public header, each under the folder it is included by.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/Oba ${PROJECT_SOURCE_DIR}/ObaEvpn
                  ${PROJECT_SOURCE_DIR}/platform/Kiv ${PROJECT_SOURCE_DIR}/platform/Mox
                  ${PROJECT_SOURCE_DIR}/platform/Shoal
  DESTINATION ${OBA_INSTALL_INCLUDEDIR} COMPONENT library
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/model/
  DESTINATION ${OBA_INSTALL_INCLUDEDIR} COMPONENT library
  FILES_MATCHING PATTERN "*.h")

install(EXPORT ObaEvpnTargets
  NAMESPACE ObaEvpn::
  DESTINATION ${OBA_INSTALL_CMAKEDIR} COMPONENT library)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ObaEvpnConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ObaEvpnConfig.cmake
  INSTALL_DESTINATION ${OBA_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ObaEvpnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ObaEvpnConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/ObaEvpnConfigVersion.cmake
  DESTINATION ${OBA_INSTALL_CMAKEDIR} COMPONENT library)

# Relocatable: the prefix is found from the file's own place.
file(RELATIVE_PATH OBA_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" OBA_PC_TO_PREFIX "${OBA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/obaevpn.pc.in ${CMAKE_CURRENT_BINARY_DIR}/obaevpn.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/obaevpn.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)

# The simulator finds the library in its private folder from wherever it is installed.
file(RELATIVE_PATH OBA_BIN_TO_LIB /${CMAKE_INSTALL_BINDIR} /${OBA_INSTALL_LIBDIR})
set_target_properties(oba-evpn-sim oba-evpn-show PROPERTIES INSTALL_RPATH
                                                            "$ORIGIN/${OBA_BIN_TO_LIB}")
install(TARGETS oba-evpn-sim oba-evpn-show RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT simulator)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/scenarios/
  DESTINATION ${CMAKE_INSTALL_DATADIR}/oba-evpn-sim/scenarios COMPONENT simulator
  FILES_MATCHING PATTERN "*.yaml")

# Debian packages: libobaevpn (the library, its headers and package files) and oba-evpn-sim.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME obaevpn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "libObaEvpn developers <obaevpn@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "EVPN forwarding-state machines for a switch's agents")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library simulator)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libobaevpn)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libc6, libstdc++6")
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME oba-evpn-sim)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_DEPENDS
    "libobaevpn (= ${PROJECT_VERSION}), libyaml-cpp0.7, libc6, libstdc++6")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "The EVPN state machines, the platform libraries they link and their headers")
set(CPACK_COMPONENT_SIMULATOR_DESCRIPTION
    "oba-evpn-sim: the machines in a host agent with a software chip, scenario replay and fuzzing")
include(CPack)
