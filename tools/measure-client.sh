#!/usr/bin/env bash
# measure-client.sh BUILD_DIR [RUNS]: wall time and peak memory of the built metrics client,
# measured with /usr/bin/time inside the same namespaces as the main job (nsenv.sh):
#   - an unchanged run (collects, compares with the cache, sends nothing);
#   - a posting run (no cache: collects, posts to the local HTTPS endpoint, writes the cache);
#   - the secure wrapper running the panel tool alone, the part of every run spent outside
#     the client;
#   - curl alone posting the same body to the same endpoint, for comparison.
# Each is run RUNS times (default 20); prints the median and the lowest wall time and the
# median and highest peak resident set size. The peak is that of the largest process of the
# run (the client, or a program it started, such as curl). Builds nothing; needs root.
set -euo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 BUILD_DIR [RUNS]" >&2
    exit 2
fi
build_dir=$(cd "$1" && pwd)
runs=${2:-20}

if [ -z "${NSENV_WORK:-}" ]; then
    exec "$source_dir/tests/integration/nsenv.sh" "$build_dir" bash "${BASH_SOURCE[0]}" \
        "$build_dir" "$runs"
fi

python=${PYTHON:-python3}
timing=$NSENV_WORK/timing
mkdir -p "$timing"

# measure NAME BEFORE-COMMAND COMMAND...: runs COMMAND $runs times, BEFORE-COMMAND (an eval'd
# string) before each, appending "seconds kilobytes" lines to $timing/NAME.
measure() {
    local name=$1 before=$2 i
    shift 2
    : >"$timing/$name"
    for ((i = 0; i < runs; i++)); do
        eval "$before"
        /usr/bin/time -a -o "$timing/$name" -f '%e %M' "$@" >/dev/null 2>&1 ||
            echo "warning: $name run $i failed" >&2
    done
}

env -u VERBOSEDEBUG "$NSENV_CLIENT" >/dev/null
[ -f "$NSENV_CACHE" ] || {
    echo "the first post failed; nothing to measure" >&2
    exit 1
}
body=$(cat "$NSENV_RECORD_DIR/body-1.bin")

measure unchanged ":" env -u VERBOSEDEBUG "$NSENV_CLIENT"
measure posting "rm -f '$NSENV_CACHE'" env -u VERBOSEDEBUG "$NSENV_CLIENT"
measure panel_tool ":" "$NSENV_SUITE_BIN_DIR/ardvex-secure" "$NSENV_SUITE_BIN_DIR/ardvex-panel-version"
measure curl_alone ":" "$NSENV_CURL" -q -s -k -d "$body" -o "$NSENV_WORK/curl-body" \
    -D "$NSENV_WORK/curl-headers" "$NSENV_METRICS_URL"

"$python" - "$timing" "$runs" <<'PY'
import os, statistics, sys
timing, runs = sys.argv[1], int(sys.argv[2])
titles = {"unchanged": "client, unchanged (nothing sent)",
          "posting": "client, posting (no cache)",
          "panel_tool": "  of which: wrapper + panel tool alone",
          "curl_alone": "curl alone, same body, same endpoint"}
print("%d runs each              wall s: median   min   peak RSS KiB: median    max" % runs)
for name in ("unchanged", "posting", "panel_tool", "curl_alone"):
    rows = []
    with open(os.path.join(timing, name)) as f:
        for line in f:
            parts = line.split()
            if len(parts) == 2:
                rows.append((float(parts[0]), int(parts[1])))
    if not rows:
        print("%-40s no successful run" % titles[name])
        continue
    wall = [r[0] for r in rows]
    rss = [r[1] for r in rows]
    print("%-40s %6.3f %6.3f %12d %7d" % (titles[name], statistics.median(wall), min(wall),
                                         statistics.median(rss), max(rss)))
PY
