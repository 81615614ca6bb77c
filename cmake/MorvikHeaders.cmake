# Which headers an installed tree holds: those that are named, and all that they include.

# Included by the install script, too, which has no project.
cmake_minimum_required(VERSION 3.22)

# morvik_header_closure(VARIABLE ROOT HEADER...): the headers and everything that they include by "", as they are
# included ("kit/value.h"), sorted. What apps include as "morvik/..." lies below include/.
function(morvik_header_closure variable root)
  set(pending ${ARGN})
  set(found "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST found)
      continue()
    endif()
    list(APPEND found ${header})
    morvik_header_path(path ${root} ${header})
    if(NOT EXISTS ${path})
      message(FATAL_ERROR "${header} is to be installed, and is not in the tree")
    endif()
    file(STRINGS ${path} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[^\"]*\"([^\"]+)\".*$" "\\1" included "${line}")
      list(APPEND pending ${included})
    endforeach()
  endwhile()
  list(SORT found)
  set(${variable} ${found} PARENT_SCOPE)
endfunction()

# morvik_header_path(VARIABLE ROOT HEADER): where a header that is included so lies.
function(morvik_header_path variable root header)
  if(header MATCHES "^morvik/")
    set(${variable} ${root}/include/${header} PARENT_SCOPE)
  else()
    set(${variable} ${root}/${header} PARENT_SCOPE)
  endif()
endfunction()

# morvik_copy_headers(ROOT DESTINATION HEADER...): installs them with what they include, each in its folder. Called
# while installing: so the list is right whatever was edited since the build was configured.
function(morvik_copy_headers root destination)
  morvik_header_closure(headers ${root} ${ARGN})
  foreach(header IN LISTS headers)
    morvik_header_path(path ${root} ${header})
    cmake_path(GET header PARENT_PATH folder)
    file(INSTALL ${path} DESTINATION ${destination}/${folder})
  endforeach()
endfunction()
