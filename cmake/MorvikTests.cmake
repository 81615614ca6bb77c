# Every test is known to ctest by its own name and has its group as label.

# morvik_test_group(NAME FOLDER folder LIBRARIES library... [LABELS label...] [TIMEOUT seconds] [THREADS count]): all
# .cpp files of the folder become test_NAME. THREADS: how many threads each test keeps busy, while ctest runs nothing
# else.
function(morvik_test_group name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "FOLDER;TIMEOUT;THREADS" "LIBRARIES;LABELS")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  if(NOT arg_THREADS)
    set(arg_THREADS 1)
  endif()
  morvik_sources(sources ${arg_FOLDER})
  if(NOT sources)
    return()
  endif()
  add_executable(test_${name} ${sources})
  morvik_compiled(test_${name})
  target_link_libraries(test_${name} PRIVATE ${arg_LIBRARIES} morvik_test_support GTest::gmock_main)
  # Tests are not optimized: it would double their compile time and gain nothing.
  target_compile_options(test_${name} PRIVATE $<$<CONFIG:Debug>:-O0>)
  # Discovered when ctest runs, not while building: a test that crashes at start must not break the build.
  gtest_discover_tests(
    test_${name}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    # Values as names would span several lines; a number or the test's own name is enough.
    NO_PRETTY_VALUES
    PROPERTIES LABELS ${name} TIMEOUT ${arg_TIMEOUT} PROCESSORS ${arg_THREADS})
  # Discovery cannot pass a list: more labels are set once the tests are known.
  if(arg_LABELS)
    set(more_labels "${CMAKE_CURRENT_BINARY_DIR}/test_${name}_labels.cmake")
    file(WRITE "${more_labels}"
         "if(test_${name}_TESTS)\n"
         "  set_tests_properties(\${test_${name}_TESTS} PROPERTIES LABELS \"${name};${arg_LABELS}\")\n"
         "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${more_labels}")
  endif()
endfunction()

# morvik_python_tests(FOLDER): every test_*.py of the folder is one test.
# A file may contain:   # Labels: one two     # Timeout: seconds
function(morvik_python_tests folder)
  set(environment
      MORVIK_SOURCE_DIR=${PROJECT_SOURCE_DIR}
      MORVIK_BUILD_DIR=${PROJECT_BINARY_DIR}
      MORVIK_CXX=${CMAKE_CXX_COMPILER}
      PYTHONDONTWRITEBYTECODE=1)
  file(GLOB files CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${folder}/test_*.py")
  foreach(file IN LISTS files)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    get_filename_component(name "${file}" NAME_WE)
    set(labels ${folder})
    set(timeout 300)
    file(STRINGS "${file}" head LIMIT_COUNT 30 REGEX "^# (Labels|Timeout): ")
    foreach(line IN LISTS head)
      if(line MATCHES "^# Labels: (.*)$")
        string(REPLACE " " ";" more "${CMAKE_MATCH_1}")
        list(APPEND labels ${more})
      elseif(line MATCHES "^# Timeout: ([0-9]+)$")
        set(timeout ${CMAKE_MATCH_1})
      else()
        message(FATAL_ERROR "${file}: '${line}' is not understood; say '# Labels: a b' or '# Timeout: seconds'.")
      endif()
    endforeach()
    add_test(NAME ${folder}.${name} COMMAND ${MORVIK_PYTHON} -m unittest -v ${name}
             WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${folder})
    set_tests_properties(
      ${folder}.${name}
      PROPERTIES LABELS "${labels}"
                 TIMEOUT ${timeout}
                 ENVIRONMENT "${environment}")
  endforeach()
endfunction()

# morvik_scenarios(FOLDER): every scenario of the folder (relative to the tree) is a test that plays it.
function(morvik_scenarios folder)
  file(GLOB files CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.yaml")
  foreach(file IN LISTS files)
    get_filename_component(name "${file}" NAME_WE)
    add_test(NAME scenario.${name} COMMAND morvik-device simulate "${folder}/${name}.yaml"
             WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
    set_tests_properties(scenario.${name} PROPERTIES LABELS scenario TIMEOUT 60)
  endforeach()
endfunction()

# morvik_browser_tests(FOLDER): every NAME.test.mjs of the folder is one test, run by Node.js; screenshots stay in the
# build folder. tools/browser_driver fetches what they need.
function(morvik_browser_tests folder)
  find_program(MORVIK_NODE NAMES node nodejs REQUIRED)
  file(GLOB files CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.test.mjs")
  foreach(file IN LISTS files)
    get_filename_component(name "${file}" NAME_WE)
    add_test(NAME ${folder}.${name} COMMAND ${MORVIK_NODE} "${file}")
    set_tests_properties(
      ${folder}.${name}
      PROPERTIES LABELS "${folder};plain_only"
                 TIMEOUT 600
                 ENVIRONMENT "MORVIK_BUILD_DIR=${PROJECT_BINARY_DIR}")
  endforeach()
endfunction()
