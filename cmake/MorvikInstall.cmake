# The package: libraries, headers and programs in their places, found by find_package(Morvik) or by pkg-config.
# Each library has an export set of its own, so that an app that links the core alone needs nothing of the host.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The headers keep their folders below one include folder, so that both ways to find the package need one path.
set(morvik_include "${CMAKE_INSTALL_INCLUDEDIR}/morvik-${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
set(morvik_cmake "${CMAKE_INSTALL_LIBDIR}/cmake/Morvik")

# morvik_install_library(NAME FOLDER...): the library morvik_NAME and the headers of its folders.
function(morvik_install_library name)
  target_include_directories(morvik_${name} INTERFACE $<INSTALL_INTERFACE:${morvik_include}>)
  install(TARGETS morvik_${name} EXPORT Morvik-${name})
  install(EXPORT Morvik-${name} NAMESPACE Morvik:: DESTINATION ${morvik_cmake})
  foreach(folder IN LISTS ARGN)
    install(
      DIRECTORY ${PROJECT_SOURCE_DIR}/${folder}
      DESTINATION ${morvik_include}
      FILES_MATCHING
      PATTERN "*.h"
      PATTERN "*.inc")
  endforeach()
endfunction()

# The way from the folder of the .pc files to the prefix, so that an installed tree may be moved.
file(RELATIVE_PATH morvik_pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")

# morvik_install_pkg_config(NAME): the file morvik-NAME.pc.
function(morvik_install_pkg_config name)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/morvik-${name}.pc.in ${PROJECT_BINARY_DIR}/morvik-${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/morvik-${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

morvik_install_library(core kit services MorvikCoreLib)
morvik_install_library(runtime runtime include/morvik)
morvik_install_library(testing testing)
morvik_install_pkg_config(core)

if(MORVIK_BUILD_HOST)
  morvik_install_library(host host)
  morvik_install_library(simulation simulation)
  # A static library leaves its dependencies to who links it; a shared one brings them along.
  set(morvik_host_requires "libcurl libssl libcrypto sqlite3 zlib simdjson libuv libdw")
  if(BUILD_SHARED_LIBS)
    set(morvik_host_requires "")
  endif()
  morvik_install_pkg_config(host)
endif()

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/MorvikConfig.cmake.in ${PROJECT_BINARY_DIR}/MorvikConfig.cmake
  INSTALL_DESTINATION ${morvik_cmake}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/MorvikConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/MorvikConfig.cmake ${PROJECT_BINARY_DIR}/MorvikConfigVersion.cmake
        DESTINATION ${morvik_cmake})

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

foreach(program IN ITEMS morvik-device morvik-service)
  if(TARGET ${program})
    install(TARGETS ${program})
  endif()
endforeach()
