# 32-bit x86: Debian's cross compiler. A 64-bit kernel runs the programs as they are; they only need the loader and
# the libraries that came with the compiler, whose places the programs of the build tree (not what is installed) name.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/i686-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,--dynamic-linker=/usr/i686-linux-gnu/lib/ld-linux.so.2)
set(CMAKE_BUILD_RPATH /usr/i686-linux-gnu/lib)
