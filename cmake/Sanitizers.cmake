# One cache variable turns a build into a sanitizer build, tests and libraries alike.
if(NIPC_SANITIZE)
  # Less optimized than the build type says: twice as fast to compile, and reports are easier to read.
  add_compile_options(-O1 -g1)
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-maybe-uninitialized)  # GCC, then, finds some in its own <regex>.
  endif()
  add_compile_options(-fsanitize=${NIPC_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NIPC_SANITIZE})
endif()

# nipc_runs_short_of_descriptors(target): to look at an object's type, the sanitizer opens a pipe; without a descriptor
# to be had it takes each type for a wrong one. What is tested in that shortage goes without this one check.
function(nipc_runs_short_of_descriptors target)
  if(NIPC_SANITIZE MATCHES undefined)
    target_compile_options(${target} PRIVATE -fno-sanitize=vptr)
  endif()
endfunction()
