# nipc_export_only(target map): of what the shared library defines, only what the version script names can be
# seen. Hidden visibility alone lets instances of the standard library's templates through.
function(nipc_export_only target map)
  set(script ${PROJECT_SOURCE_DIR}/cmake/exports/${map})
  target_link_options(${target} PRIVATE -Wl,--version-script=${script})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
endfunction()
