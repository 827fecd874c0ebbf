# shellcheck shell=bash
# Shared by the scripts: running tests. Needs setup.sh, and in $root the tree.

export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1
# By default a process sleeps a second at its end; the tests of ends have very many.
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:atexit_sleep_ms=20:suppressions='$root/tests/tsan.supp'"

# run_tests BUILD LABEL: runs the tests of that label. No test at all is a failure, and so is one that was skipped; only
# what takes root (another user's process) may be left out by who is not, and is named.
run_tests() {
    local log
    log=$(mktemp)
    say "tests: $2"
    if ! ctest --test-dir "$1" --label-regex "^$2\$" --no-tests=error --output-on-failure \
        --parallel "$(nproc)" | tee "$log"; then
        rm -f "$log"
        die "tests of $2 failed"
    fi
    if grep -qE '\*\*\*(Skipped|Not Run)' "$log"; then
        [ "$(id -u)" -ne 0 ] || { rm -f "$log" && die "tests of $2 were skipped"; }
        say "left out, as they need root:"
        grep -E '\*\*\*(Skipped|Not Run)' "$log"
    fi
    rm -f "$log"
}

# Runs the script anew with fixed addresses: ThreadSanitizer needs them where the kernel randomizes more bits
# than it knows of.
without_address_randomization() {
    [ -z "${NIPC_ADDRESSES_FIXED:-}" ] || return 0
    setarch "$(uname -m)" -R true 2>/dev/null || return 0
    NIPC_ADDRESSES_FIXED=1 exec setarch "$(uname -m)" -R "$0" "$@"
}
