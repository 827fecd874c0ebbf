# What `cmake --install` installs: a CMake package, a pkg-config file, and what they are about. Components: runtime (the
# shared libraries), dev (what it takes to build with them), tools.
option(NIPC_INSTALL "Install the library with its CMake package and pkg-config file" ${PROJECT_IS_TOP_LEVEL})
if(NOT NIPC_INSTALL)
  return()
endif()

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(NIPC_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nipcconnector)

# nipc_install_library(target export): built here, to be found again through the export set.
function(nipc_install_library target export)
  install(TARGETS ${target} EXPORT ${export}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()

# nipc_install_export(export file): the targets of the set, as nipcconnector::NAME.
function(nipc_install_export export file)
  install(EXPORT ${export} NAMESPACE nipcconnector:: FILE ${file} DESTINATION ${NIPC_CMAKE_DIR} COMPONENT dev)
endfunction()

nipc_install_library(nipcconnector nipcconnector)
nipc_install_library(nipcconnector_testing nipcconnector)
nipc_install_library(nipcconnector_adapters nipcconnector)
if(TARGET nex_nipc)
  set_target_properties(nipcconnector PROPERTIES INSTALL_RPATH $ORIGIN)  # Wherever they are put, they are put together.
  nipc_install_library(nex_nipc nipcconnector)
  install(FILES platform/nex_nipc.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
endif()
nipc_install_export(nipcconnector nipcconnectorTargets.cmake)

# What needs another package is a component of ours, so that who does not ask for it does not need that.
foreach(adapter spdlog prometheus)
  if(TARGET nipcconnector_${adapter})
    nipc_install_library(nipcconnector_${adapter} nipcconnector_${adapter})
    nipc_install_export(nipcconnector_${adapter} nipcconnector-${adapter}.cmake)
  endif()
endforeach()

install(DIRECTORY include/ testing/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(DIRECTORY adapters/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  REGEX "/(Spdlog|Prometheus)[^/]*$" EXCLUDE)
foreach(adapter Spdlog Prometheus)
  string(TOLOWER nipcconnector_${adapter} target)
  if(TARGET ${target})
    install(DIRECTORY adapters/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
      FILES_MATCHING PATTERN "${adapter}*.h")
  endif()
endforeach()

configure_package_config_file(cmake/nipcconnectorConfig.cmake.in ${PROJECT_BINARY_DIR}/nipcconnectorConfig.cmake
  INSTALL_DESTINATION ${NIPC_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/nipcconnectorConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/nipcconnectorConfig.cmake ${PROJECT_BINARY_DIR}/nipcconnectorConfigVersion.cmake
  cmake/NipcCheckNames.cmake DESTINATION ${NIPC_CMAKE_DIR} COMPONENT dev OPTIONAL)

file(RELATIVE_PATH NIPC_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/nipcconnector.pc.in ${PROJECT_BINARY_DIR}/nipcconnector.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nipcconnector.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(PROJECT_IS_TOP_LEVEL AND NIPC_PLATFORM STREQUAL "linux")
  include(cmake/DebianPackages.cmake)
endif()
