# Run by CPack on what it is about to pack: Debian keeps man pages compressed.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.1)
list(FILTER pages INCLUDE REGEX "/man1/")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip --best --no-name ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
