# Targets follow folders: a source file belongs to a target because of its folder; there is no list to edit.

# morvik_sources(VARIABLE FOLDER...): all .cpp files below these folders (relative to the calling list file).
function(morvik_sources variable)
  set(patterns "")
  foreach(folder IN LISTS ARGN)
    list(APPEND patterns "${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp")
  endforeach()
  file(GLOB_RECURSE found CONFIGURE_DEPENDS ${patterns})
  set(${variable} "${found}" PARENT_SCOPE)
endfunction()

# morvik_library_sources(VARIABLE FOLDER...): the same for a library, which must have at least one object.
function(morvik_library_sources variable)
  morvik_sources(found ${ARGN})
  if(NOT found)
    set(found "${PROJECT_BINARY_DIR}/nothing_yet.cpp")
    file(CONFIGURE OUTPUT "${found}" CONTENT "")
  endif()
  set(${variable} "${found}" PARENT_SCOPE)
endfunction()

# morvik_compiled(TARGET): the common settings of all targets of this tree.
function(morvik_compiled target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:morvik_build_options>)
endfunction()

# morvik_library(NAME FOLDERS folder...): the library morvik_NAME, known to users as Morvik::NAME.
function(morvik_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" FOLDERS)
  morvik_library_sources(sources ${arg_FOLDERS})
  add_library(morvik_${name} ${sources})
  add_library(Morvik::${name} ALIAS morvik_${name})
  morvik_compiled(morvik_${name})
  set_target_properties(
    morvik_${name}
    PROPERTIES EXPORT_NAME ${name}
               POSITION_INDEPENDENT_CODE ON
               VERSION ${PROJECT_VERSION}
               SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  target_include_directories(
    morvik_${name}
    PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
           $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
endfunction()

# morvik_app(NAME FOLDER): all files but main.cpp become the library morvik_NAME_lib, so that tests can link them;
# main.cpp becomes the program morvik-NAME. Call target_link_libraries on morvik_NAME_lib for what the app needs.
function(morvik_app name folder)
  morvik_sources(sources ${folder})
  set(main "${CMAKE_CURRENT_SOURCE_DIR}/${folder}/main.cpp")
  list(REMOVE_ITEM sources "${main}")
  file(GLOB main_found CONFIGURE_DEPENDS "${main}")
  if(NOT sources)
    morvik_library_sources(sources ${folder}/no_sources)
  endif()
  add_library(morvik_${name}_lib STATIC ${sources})
  morvik_compiled(morvik_${name}_lib)
  target_include_directories(morvik_${name}_lib PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  if(main_found)
    add_executable(morvik-${name} "${main}")
    morvik_compiled(morvik-${name})
    set_target_properties(morvik-${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
    target_link_libraries(morvik-${name} PRIVATE morvik_${name}_lib)
  endif()
endfunction()
