# Installs the libraries, their headers, a CMake package (find_package(OstrelMQTTProtocol), target
# Ostrel::MQTTProtocol) and a pkg-config file (ostrel-mqttprotocol).
include(CMakePackageConfigHelpers)

set(OSTREL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/OstrelMQTTProtocol)

# Two components, one Debian package each: the shared libraries (runtime) and what a host builds
# against (development: headers, the linker names, the CMake package and the pkg-config file).
install(TARGETS Ostrel_MQTTProtocol Ostrel_Keel Ostrel_Hopper
  EXPORT OstrelMQTTProtocolTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

install(EXPORT OstrelMQTTProtocolTargets
  NAMESPACE Ostrel::
  DESTINATION ${OSTREL_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/OstrelMQTTProtocolConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfig.cmake
  INSTALL_DESTINATION ${OSTREL_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfigVersion.cmake
  DESTINATION ${OSTREL_CMAKE_DIR}
  COMPONENT development)

# The .pc file finds its prefix from where it lies, so an installed tree can be moved.
file(RELATIVE_PATH OSTREL_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" OSTREL_PC_TO_PREFIX "${OSTREL_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/ostrel-mqttprotocol.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/ostrel-mqttprotocol.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ostrel-mqttprotocol.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

# Debian packages: libostrel-mqttprotocol1 (the three shared libraries) and libostrel-mqttprotocol-dev.
# CPack's settings are the top-level project's: a project that adds this tree packages itself.
if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libostrel-mqttprotocol)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Ostrel")
set(CPACK_PACKAGE_CONTACT "Ostrel maintainers <maintainers@ostrel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libostrel-mqttprotocol${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libstdc++6")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libostrel-mqttprotocol-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libostrel-mqttprotocol${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
include(CPack)
