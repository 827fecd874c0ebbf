# shellcheck shell=bash
# Shared by the scripts: saying what happens, installing what is missing, building.
# A script sets `root` to the top of the tree before it reads this file.

say() { printf '\n== %s\n' "$*"; }

die() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "this needs root, and there is no sudo: $*"
    fi
}

is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# need PACKAGE...: installs those that are missing, by the distribution's own names.
need() {
    local package missing=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get >/dev/null || die "install these first: ${missing[*]}"
    say "installing ${missing[*]}"
    as_root apt-get -o DPkg::Lock::Timeout=300 update </dev/null
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "${missing[@]}" </dev/null
}

# What Clang needs for fuzzing and for sanitizers, in its own version.
need_clang_runtime() {
    local version
    version=$(clang -dumpversion)
    need "libclang-rt-${version%%.*}-dev"
}

# Where ccache is installed, what several build directories have in common is compiled once.
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
    export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1
fi

# build_tree DIR [CMAKE-ARGUMENT...]: configures and builds the tree into DIR.
build_tree() {
    local directory=$1
    shift
    say "building into ${directory#"$root/"}"
    cmake -S "$root" -B "$directory" -G Ninja "$@" || return 1
    cmake --build "$directory" --parallel "$(nproc)"
}
