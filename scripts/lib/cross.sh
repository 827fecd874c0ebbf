# shellcheck shell=bash
# Shared by the scripts: building for 32-bit targets. Needs setup.sh.

# need_cross TARGET: what it takes to build for the target and to run what was built.
need_cross() {
    case $1 in
        armhf) need g++-arm-linux-gnueabihf qemu-user ;;
        i686) need g++-i686-linux-gnu ;;
        *) die "unknown target $1: armhf or i686" ;;
    esac
    need g++ cmake ninja-build
}

# The tests too; one of their programs is also built for this machine.
need_cross_tests() {
    need_cross "$1"
    need googletest libgtest-dev
    [ "$1" != armhf ] || need clang libc++-dev # for the target's own string hash
}

toolchain() { printf '%s/cmake/toolchains/%s.cmake' "$root" "$1"; }
