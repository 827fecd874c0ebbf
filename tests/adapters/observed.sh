#!/usr/bin/env bash
# The thermostat with logger and metrics: what fails is found at the endpoint.
#
#   tests/adapters/observed.sh PROGRAMS     PROGRAMS: the folder `examples` of a tree that is built
set -euo pipefail

programs=$1
work=$(mktemp -d)
export NEX_NIPC_DIR=$work/nipc
mkdir -m 700 "$NEX_NIPC_DIR"
processes=()
trap 'kill "${processes[@]}" 2>/dev/null || true; wait; rm -rf "$work"' EXIT

"$programs/thermostat/thermostat-server" >"$work/server" 2>&1 &
processes+=($!)
"$programs/observed/thermostat-observed" 127.0.0.1:0 >"$work/observed" 2>&1 &
processes+=($!)

# expect PATTERN: waits until a scrape has a line like this.
expect() {
    local port='' try
    for ((try = 0; try < 100; ++try)); do
        port=$(sed -n 's|.*http://127.0.0.1:\([0-9]*\)/metrics.*|\1|p' "$work/observed")
        if [ -n "$port" ] && curl -sf --max-time 5 "http://127.0.0.1:$port/metrics" >"$work/scrape" &&
            grep -qE "$1" "$work/scrape"; then
            return
        fi
        sleep 0.1
    done
    cat "$work/observed" "$work/scrape"
    echo "no line like $1 was scraped within 10 seconds"
    exit 1
}

expect '^nipc_connected\{service="observed"\} 1$'
# Nobody serves "getHumidity".
expect '^nipc_sync_request_failure_total\{failure_reason="SendRequestFailed",service="observed"\} ([2-9]|[1-9][0-9])'
kill "${processes[0]}"
expect '^nipc_connected\{service="observed"\} 0$'
expect '^nipc_server_disconnection_total\{service="observed"\} 1$'
expect '^nipc_request_while_disconnected_total\{.*request_type="Sync",service="observed"\} [1-9]'
grep -q '\[observed\] \[error\] NEX_NIPC_EVENT_SERVER_DOWN' "$work/observed"
