# nipc_check_names(FILE...): the build fails when two of the names in these files, one per line, share an identifier,
# or when one is empty. All requests and events of one service belong together, since one can shadow the other and
# nothing at run time can tell.
include_guard(GLOBAL)

function(nipc_check_names)
  if(NOT ARGV)
    message(FATAL_ERROR "nipc_check_names needs a file of names")
  endif()
  if(TARGET nipcctl)
    set(tool nipcctl)
  elseif(TARGET nipcconnector::nipcctl)
    set(tool nipcconnector::nipcctl)
  else()
    find_program(NIPCCTL_PROGRAM nipcctl)
    if(NOT NIPCCTL_PROGRAM)
      message(FATAL_ERROR "nipc_check_names needs nipcctl: install it, or build it by NIPC_BUILD_TOOLS")
    endif()
    set(tool ${NIPCCTL_PROGRAM})
  endif()

  set(files)
  foreach(file IN LISTS ARGV)
    get_filename_component(file ${file} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    list(APPEND files ${file})
  endforeach()
  string(MD5 id "${files}")
  string(SUBSTRING ${id} 0 8 id)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/names-${id}.checked)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${tool} lint -- ${files}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${files} ${tool}
    COMMENT "Checking the names in ${ARGV}"
    VERBATIM)
  add_custom_target(nipc_check_names_${id} ALL DEPENDS ${stamp})
endfunction()
