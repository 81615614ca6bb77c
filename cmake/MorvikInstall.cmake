# The package: libraries, headers and programs in their places, found by find_package(Morvik) or by pkg-config.
# Each library has its own export set, so that an app that links only the core needs no library of host/.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The headers keep their folders below one include folder, so that both ways to find the package need one path.
set(morvik_include "${CMAKE_INSTALL_INCLUDEDIR}/morvik-${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
set(morvik_cmake "${CMAKE_INSTALL_LIBDIR}/cmake/Morvik")

# morvik_install_library(NAME HEADER...): the library morvik_NAME, and the headers by which it is used. What these
# include is installed with them, and no other header of the tree.
function(morvik_install_library name)
  target_include_directories(morvik_${name} INTERFACE $<INSTALL_INTERFACE:${morvik_include}>)
  install(TARGETS morvik_${name} EXPORT Morvik-${name})
  install(EXPORT Morvik-${name} NAMESPACE Morvik:: DESTINATION ${morvik_cmake})
  install(CODE "include(\"${PROJECT_SOURCE_DIR}/cmake/MorvikHeaders.cmake\")")
  install(CODE "morvik_copy_headers(\"${PROJECT_SOURCE_DIR}\" \"\${CMAKE_INSTALL_PREFIX}/${morvik_include}\" ${ARGN})")
endfunction()

# The relative path from the .pc files to the prefix, so that an installed tree may be moved.
file(RELATIVE_PATH morvik_pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")

# morvik_install_pkg_config(NAME): the file morvik-NAME.pc.
function(morvik_install_pkg_config name)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/morvik-${name}.pc.in ${PROJECT_BINARY_DIR}/morvik-${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/morvik-${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# The core's values and texts.
morvik_install_library(core kit/value.h services/json_writer.h)
# What an app includes; and what a machine for another platform is made with, and started.
file(GLOB morvik_app_headers RELATIVE ${PROJECT_SOURCE_DIR}/include CONFIGURE_DEPENDS include/morvik/*.h)
morvik_install_library(
  runtime
  ${morvik_app_headers}
  runtime/start.h
  runtime/checked_options.h
  runtime/machine/machine.h
  services/guard.h
  services/MorvikGVUserDefaults.h)
# Fakes for the tests of an app or of a platform.
morvik_install_library(
  testing
  testing/world.h
  testing/json_reader.h
  testing/fake_calendar.h
  testing/fake_keyed_hash.h
  testing/simulated_service.h)
morvik_install_pkg_config(core)

if(MORVIK_BUILD_HOST)
  # An app sees none of its headers.
  morvik_install_library(host)
  morvik_install_library(simulation simulation/test_device.h simulation/fleet.h)
  # A static library leaves its dependencies to the linking target; a shared one includes them.
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
