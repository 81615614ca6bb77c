# Embeds text files in a program. Included, it defines morvik_embed; run with cmake -P, it writes the source.

# morvik_embed(TARGET FOLDER HEADER ELEMENT FUNCTION): every file of FOLDER, as elements {name, content} of the span
# that FUNCTION returns; HEADER declares both. The next build includes changed files.
function(morvik_embed target folder header element function)
  file(GLOB files CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*")
  set(source "${CMAKE_CURRENT_BINARY_DIR}/${function}.cpp")
  set(script "${PROJECT_SOURCE_DIR}/cmake/MorvikEmbed.cmake")
  add_custom_command(
    OUTPUT "${source}"
    COMMAND ${CMAKE_COMMAND} "-DFILES=${files}" "-DOUTPUT=${source}" "-DHEADER=${header}" "-DELEMENT=${element}"
            "-DFUNCTION=${function}" -P "${script}"
    DEPENDS ${files} "${script}"
    COMMENT "Taking ${folder} into the program"
    VERBATIM)
  target_sources(${target} PRIVATE "${source}")
endfunction()

if(CMAKE_SCRIPT_MODE_FILE)
  set(entries "")
  set(count 0)
  foreach(file IN LISTS FILES)
    get_filename_component(name "${file}" NAME)
    # As numbers, so that neither a file's text nor its length is a problem for a compiler.
    file(READ "${file}" digits HEX)
    string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${digits}")
    string(APPEND arrays "constexpr char kFile${count}[] = {${bytes}'\\0'};\n")
    string(APPEND entries "    {\"${name}\", {kFile${count}, sizeof kFile${count} - 1}},\n")
    math(EXPR count "${count} + 1")
  endforeach()
  string(REGEX REPLACE "::[^:]*$" "" namespace "${ELEMENT}")
  file(
    WRITE "${OUTPUT}.new"
    "#include \"${HEADER}\"\n\n#include <array>\n\nnamespace ${namespace} {\nnamespace {\n\n${arrays}\n"
    "constexpr std::array<${ELEMENT}, ${count}> kFiles = {{\n${entries}}};\n\n}  // namespace\n\n"
    "std::span<const ${ELEMENT}> ${FUNCTION}() {\n  return kFiles;\n}\n\n}  // namespace ${namespace}\n")
  file(RENAME "${OUTPUT}.new" "${OUTPUT}")
endif()
