# Installs the libraries, their headers, a CMake package (find_package(OstrelMQTTProtocol), target
# Ostrel::MQTTProtocol) and a pkg-config file (ostrel-mqttprotocol).
include(CMakePackageConfigHelpers)

set(OSTREL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/OstrelMQTTProtocol)

install(TARGETS Ostrel_MQTTProtocol Ostrel_Keel Ostrel_Hopper
  EXPORT OstrelMQTTProtocolTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT OstrelMQTTProtocolTargets
  NAMESPACE Ostrel::
  DESTINATION ${OSTREL_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/OstrelMQTTProtocolConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfig.cmake
  INSTALL_DESTINATION ${OSTREL_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/OstrelMQTTProtocolConfigVersion.cmake
  DESTINATION ${OSTREL_CMAKE_DIR})

# The .pc file finds its prefix from where it lies, so an installed tree can be moved.
file(RELATIVE_PATH OSTREL_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" OSTREL_PC_TO_PREFIX "${OSTREL_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/ostrel-mqttprotocol.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/ostrel-mqttprotocol.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ostrel-mqttprotocol.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
