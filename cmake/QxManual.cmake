# Manual pages of qxctl and qxrelay, and shell completions of qxctl. Each program writes its commands and options into
# its page, and writes the page of each command; qxctl also writes the completion scripts. Without scdoc, and with a
# sanitizer (which slows the programs), nothing of this is built.
find_program(QX_SCDOC scdoc)
file(GLOB qx_manual_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.scd)
if(NOT QX_SCDOC OR NOT qx_manual_sources OR QX_SANITIZE)
  return()
endif()

set(qx_manual_dir ${PROJECT_BINARY_DIR}/man)
set(qx_completion_dir ${PROJECT_BINARY_DIR}/completions)
file(MAKE_DIRECTORY ${qx_manual_dir} ${qx_completion_dir})

# The pages of qxrelay belong to its own package, and are built only where qxrelay is.
function(qx_component_of page component program)
  set(${component} tools PARENT_SCOPE)
  set(${program} qxctl PARENT_SCOPE)
  if(page MATCHES "^qxrelay")
    set(${component} relay PARENT_SCOPE)
    set(${program} qxrelay PARENT_SCOPE)
  elseif(page MATCHES "^qxview")
    set(${component} view PARENT_SCOPE)
    set(${program} qxview PARENT_SCOPE)
  elseif(page MATCHES "^qxagent")
    set(${component} agent PARENT_SCOPE)
    set(${program} qxagent PARENT_SCOPE)
  endif()
endfunction()

set(qx_manual_pages)
foreach(source ${qx_manual_sources})
  get_filename_component(page ${source} NAME_WLE)
  qx_component_of(${page} component program)
  if(NOT TARGET ${program})
    continue()
  endif()
  set(fill cat)
  if(page STREQUAL "${program}.1" AND NOT program MATCHES "^(qxview|qxagent)$")  # these have no commands
    set(fill $<TARGET_FILE:${program}> _man)
  endif()
  add_custom_command(OUTPUT ${qx_manual_dir}/${page}
    COMMAND ${fill} < ${source} > ${page}.scd
    COMMAND ${QX_SCDOC} < ${page}.scd > ${page}
    DEPENDS ${source} ${program} WORKING_DIRECTORY ${qx_manual_dir} VERBATIM)
  list(APPEND qx_manual_pages ${qx_manual_dir}/${page})
  string(REGEX REPLACE ".*\\." "" section ${page})
  install(FILES ${qx_manual_dir}/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component} OPTIONAL)
endforeach()

set(qx_command_pages ${qx_manual_dir}/commands)
file(MAKE_DIRECTORY ${qx_command_pages})
foreach(program qxctl qxrelay)
  if(NOT TARGET ${program})
    continue()
  endif()
  set(made ${qx_command_pages}/made-${program})
  add_custom_command(OUTPUT ${made}
    COMMAND ${CMAKE_COMMAND} -D PROGRAM=$<TARGET_FILE:${program}> -D SCDOC=${QX_SCDOC} -D DIR=${qx_command_pages}
      -P ${CMAKE_CURRENT_LIST_DIR}/QxManualPages.cmake
    COMMAND ${CMAKE_COMMAND} -E touch ${made}
    DEPENDS ${program} ${CMAKE_CURRENT_LIST_DIR}/QxManualPages.cmake VERBATIM)
  qx_component_of(${program} component program)
  install(DIRECTORY ${qx_command_pages}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component} FILES_MATCHING
    PATTERN "${program}-*.1")
  list(APPEND qx_manual_pages ${made})
endforeach()

set(qx_completions ${qx_completion_dir}/qxctl ${qx_completion_dir}/_qxctl ${qx_completion_dir}/qxctl.fish)
add_custom_command(OUTPUT ${qx_completions}
  COMMAND $<TARGET_FILE:qxctl> completion bash > qxctl
  COMMAND $<TARGET_FILE:qxctl> completion zsh > _qxctl
  COMMAND $<TARGET_FILE:qxctl> completion fish > qxctl.fish
  DEPENDS qxctl WORKING_DIRECTORY ${qx_completion_dir} VERBATIM)
install(FILES ${qx_completion_dir}/qxctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools OPTIONAL)
install(FILES ${qx_completion_dir}/_qxctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools OPTIONAL)
install(FILES ${qx_completion_dir}/qxctl.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools OPTIONAL)

add_custom_target(qx_manual ALL DEPENDS ${qx_manual_pages} ${qx_completions})
