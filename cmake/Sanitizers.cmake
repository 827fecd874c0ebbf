# One cache variable turns a build into a sanitizer build, tests and libraries alike.
if(NIPC_SANITIZE)
  add_compile_options(-fsanitize=${NIPC_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NIPC_SANITIZE})
endif()
