# shellcheck shell=bash
# Shared by what runs in CI: stages, each with its time, and a closing summary.

# begin_stages SECONDS: how long all stages may take together.
begin_stages() {
    stages_deadline=$((SECONDS + $1))
    stages_summary=()
    stages_failed=0
}

# stage NAME SECONDS COMMAND...: a stage that fails or takes too long does not keep the others from running.
stage() {
    local name=$1 budget=$2 start=$SECONDS result code
    shift 2
    [ $((stages_deadline - start)) -ge "$budget" ] || budget=$((stages_deadline - start))
    [ "$budget" -gt 0 ] || budget=1
    printf '\n######## %s (at most %d s)\n' "$name" "$budget"
    timeout --kill-after=20 "$budget" "$@" </dev/null
    code=$?
    case $code in
        0) result=passed ;;
        124 | 137) result="FAILED: not done after $budget s" ;;
        *) result="FAILED: exit status $code" ;;
    esac
    [ "$code" -eq 0 ] || stages_failed=1
    stages_summary+=("$(printf '%-12s %5d s  %s' "$name" $((SECONDS - start)) "$result")")
}

# Prints the summary and ends the script.
end_stages() {
    printf '\n######## summary\n'
    printf '%s\n' "${stages_summary[@]}"
    printf 'all together %d s\n' "$SECONDS"
    exit "$stages_failed"
}
