#!/bin/sh
# run_scenario.sh BUILD_DIR PYTHON SCENARIO: one scenario of client_scenarios.py in a fresh
# namespace; skipped (77) when this is not root or the machine cannot make namespaces.
here=$(cd "$(dirname "$0")" && pwd)
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: the client scenarios need root for their namespaces"
    exit 77
fi
if ! unshare --mount --net true 2>/dev/null; then
    echo "skipped: this machine cannot make mount and network namespaces"
    exit 77
fi
exec "$here/nsenv.sh" "$1" "$2" "$here/client_scenarios.py" "$3"
