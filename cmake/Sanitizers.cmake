# One cache variable turns a build into a sanitizer build, tests and libraries alike.
if(NIPC_SANITIZE)
  add_compile_options(-fsanitize=${NIPC_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NIPC_SANITIZE})
  if(NIPC_SANITIZE MATCHES undefined)
    # To look at an object's type it opens a pipe, and without a descriptor to be had it takes each for a wrong
    # one; the tests of that shortage would fail on correct code. AddressSanitizer sees dead objects all the same.
    add_compile_options(-fno-sanitize=vptr)
  endif()
endif()
