# The completion scripts of the programs, printed by the programs themselves.

include(GNUInstallDirs)

# morvik_completion(PROGRAM): prints completions/bash/PROGRAM and completions/zsh/_PROGRAM whenever the program is
# linked, and installs them where the shells look.
function(morvik_completion program)
  set(folder "${PROJECT_BINARY_DIR}/completions")
  file(MAKE_DIRECTORY "${folder}/bash" "${folder}/zsh")
  add_custom_command(
    TARGET ${program} POST_BUILD
    COMMAND ${program} completion bash > "${folder}/bash/${program}"
    COMMAND ${program} completion zsh > "${folder}/zsh/_${program}"
    BYPRODUCTS "${folder}/bash/${program}" "${folder}/zsh/_${program}"
    VERBATIM)
  if(PROJECT_IS_TOP_LEVEL)
    install(FILES "${folder}/bash/${program}" DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
    install(FILES "${folder}/zsh/_${program}" DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions")
  endif()
endfunction()
