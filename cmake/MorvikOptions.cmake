# How this tree is compiled: warnings, sanitizers, coverage, compiler cache.
# Everything is in one interface target that our own targets link privately, so that none of it reaches users.

add_library(morvik_build_options INTERFACE)

# In an app's build, possibly with an unknown compiler, our warnings would only be noise.
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(
    morvik_build_options
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Wshadow
              -Wconversion
              -Wsign-conversion
              -Wnon-virtual-dtor
              -Woverloaded-virtual
              -Wold-style-cast
              -Wcast-qual
              -Wcast-align
              -Wformat=2
              -Wundef
              -Wextra-semi
              -Wunused
              $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond>
              $<$<CXX_COMPILER_ID:GNU>:-Wlogical-op>
              # g++ 12 sees overlapping copies in "text" + std::string where, optimized, there are none.
              $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
              # Designated initializers leave members out on purpose: their defaults are the point.
              -Wno-missing-field-initializers)

  if(MORVIK_WARNINGS_AS_ERRORS)
    target_compile_options(morvik_build_options INTERFACE -Werror)
  endif()
endif()

# Sanitizers and coverage must apply to every object and every link, so they are set globally.
if(MORVIK_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(MORVIK_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT MORVIK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "MORVIK_SANITIZE is '${MORVIK_SANITIZE}': say 'address', 'thread' or nothing.")
endif()

if(MORVIK_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "The fuzzers need clang: cmake --preset fuzz, or switch MORVIK_BUILD_FUZZ off.")
  endif()
  # The fuzzer is guided by its inputs' coverage of the libraries.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(MORVIK_COVERAGE)
  # Counters must be atomic: several threads run.
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

if(PROJECT_IS_TOP_LEVEL)
  if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
  endif()
  set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
  find_program(MORVIK_CCACHE ccache)
  mark_as_advanced(MORVIK_CCACHE)
  if(MORVIK_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # With paths relative to the tree, every clone on a machine shares one cache.
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} ${MORVIK_CCACHE})
  endif()
  if(NOT MORVIK_COVERAGE)
    add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  endif()
endif()
