# CPack makes the packages of the distribution: libnipcconnector0, libnipcconnector-dev, nipcctl.
find_program(NIPC_GZIP gzip)
if(NOT NIPC_GZIP)
  return()
endif()

set(maintainer "libnipcconnector maintainers <maintainers@nipcconnector.invalid>")
set(NIPC_MAINTAINER "${maintainer}" CACHE STRING "Maintainer named in the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nipcconnector)
set(CPACK_PACKAGE_CONTACT "${NIPC_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/platform/linux)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/CompressManPages.cmake)

# nipc_debian_package(component package section description)
macro(nipc_debian_package component package section summary)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}
Components of a smart-home device talk to each other across processes:
requests that are answered now or later, and events, with payloads of up to
5 MiB.")
  set(doc ${PROJECT_BINARY_DIR}/debian/${package})
  configure_file(packaging/debian/copyright ${doc}/copyright COPYONLY)
  configure_file(packaging/debian/changelog.in ${doc}/changelog @ONLY)
  execute_process(COMMAND ${NIPC_GZIP} --best --no-name --force ${doc}/changelog COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${doc}/copyright ${doc}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

nipc_debian_package(runtime libnipcconnector0 libs "messages between the components of a smart-home device")
# The libraries, for who links them; and the linker's cache, to be brought up to date.
configure_file(packaging/debian/shlibs.in debian/shlibs @ONLY)
configure_file(packaging/debian/triggers debian/triggers COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_BINARY_DIR}/debian/triggers)
nipc_debian_package(dev libnipcconnector-dev libdevel
  "messages between the components of a smart-home device (development)")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libnipcconnector0 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libspdlog-dev, prometheus-cpp-dev")
if(TARGET nipcctl)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  nipc_debian_package(tools nipcctl utils "messages between the components of a smart-home device (tool)")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libnipcconnector0 (= ${PROJECT_VERSION})")
endif()

include(CPack)
