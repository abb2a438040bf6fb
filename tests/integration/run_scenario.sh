#!/bin/sh
# run_scenario.sh BUILD_DIR PYTHON SCENARIO: one scenario of client_scenarios.py in a fresh
# namespace; skipped (77) when this is not root or the machine cannot make namespaces.
if [ "$(id -u)" -ne 0 ] || ! unshare --mount --net true 2>/dev/null; then
    echo "skipped: the client scenarios need root, and mount and network namespaces"
    exit 77
fi
exec "$(dirname "$0")/nsenv.sh" "$1" "$2" "$(dirname "$0")/client_scenarios.py" "$3"
