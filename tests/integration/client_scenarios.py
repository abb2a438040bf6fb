#!/usr/bin/env python3
"""Scenarios of the built ardvex-metrics-client, each run inside nsenv.sh (which provides the
suite's directories, the stand-ins, the HTTPS endpoint and the /dev/log listener):

    nsenv.sh BUILD_DIR python3 client_scenarios.py SCENARIO

Only what the program's main decides is checked here; the modules have their own tests.
Every system-log record a run writes is checked: facility mail, the client's tag and pid,
the priority, and the text (matched on the source file, function and message).
"""
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time

E = os.environ
CONTROL, CACHE, RECORDS = E["NSENV_CONTROL_DIR"], E["NSENV_CACHE"], E["NSENV_RECORD_DIR"]
HERE = os.path.dirname(os.path.abspath(__file__))

# The body of the set collected from nsenv.sh's identity (K, 7, U), panel 8.8.15 and the
# switch on; first_set.cache is the cache file of that set, byte for byte.
FIRST_BODY = ("AXLICENSE=K&PRODUCTID=7&USECODE=U&AXVER=2%2E1-12%2E2&AXTIER=ZELT&OS=xenial64"
              "&ARCH=amd64&MTA=POSTFIX&PANEL=ZIMBRA&PANELVER=8%2E8%2E15&AXENABLED=1")
OFF_BODY = FIRST_BODY.replace("AXENABLED=1", "AXENABLED=0")
failures = []


def check(condition, what):
    print(("ok     " if condition else "FAILED ") + what)
    if not condition:
        failures.append(what)
    return condition


def error(message, source="ardvex-metrics-client.cpp", func="main", level="ERROR"):
    return ({"ERROR": "err", "DEBUG": "debug"}[level],
            re.compile(r"%s:\d+ %s %s\(\): %s\Z" % (re.escape(source), level, re.escape(func),
                                                   message)))


POSTED = ("info", re.compile(r"metrics posted\Z"))
NOT_SENT = error("failed to transmit POST data to metrics server")


def transfer_failed(code, reason):
    return error(r"transfer tool exited with code \[%d\]: curl: \(%d\) %s" % (code, code, reason),
                 "common_libs.cpp", "fetch_remote_url")


_seen = [0]


def records_of_last_run():
    """The records since the last look, up to a marker sent now: the listener handles
    datagrams in order, so once the marker is written every record of a finished run is too."""
    marker = "nsenv-marker-%d" % _seen[0]
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        s.sendto(("<191>Jan  1 00:00:00 marker: %s" % marker).encode(), "/dev/log")
    for _ in range(500):
        with open(E["NSENV_SYSLOG_FILE"]) as f:
            lines = [json.loads(line) for line in f if line.endswith("\n")]
        texts = [r.get("text") for r in lines]
        if marker in texts:
            start, _seen[0] = _seen[0], texts.index(marker) + 1
            return lines[start:_seen[0] - 1]
        time.sleep(0.02)
    raise RuntimeError("the syslog listener did not answer")


def run(what, status, expected, verbose=False, args=(), watch=None):
    """Runs the client and checks its exit status and records: exactly the expected ones in
    order (with verbose, in order among the DEBUG lines of the library). watch is called
    with the process while it runs. Returns its standard output."""
    env = {k: v for k, v in E.items() if k != "VERBOSEDEBUG"}
    if verbose:
        env["VERBOSEDEBUG"] = "1"
    proc = subprocess.Popen([E["NSENV_CLIENT"], *args], env=env, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)
    if watch:
        watch(proc)
    output = proc.communicate(timeout=120)[0].decode("utf-8", "replace")
    records = records_of_last_run()
    check(proc.returncode == status, "%s: exit status %d" % (what, status))

    def matches(x, priority, pattern):
        return (x.get("priority") == priority and pattern.match(x.get("text", ""))
                and x.get("pid") == proc.pid and x.get("facility") == "mail"
                and x.get("tag") == "ardvex-metrics-client")
    rest = iter(records if verbose else records[:len(expected)])
    ok = (verbose or len(records) == len(expected)) and all(
        any(matches(x, *e) for x in rest) for e in expected)
    if not check(ok, what + ": log records"):
        print("  expected:\n" + "\n".join("  %s %s" % (p, e.pattern) for p, e in expected))
        print("  got:\n" + "\n".join("  %s" % x for x in records))
    return output


def bodies():
    names = sorted((n for n in os.listdir(RECORDS) if n.startswith("request-")),
                   key=lambda n: int(re.sub(r"\D", "", n)))
    return [read_bytes(os.path.join(RECORDS, n.replace("request-", "body-").replace(".txt", ".bin")))
            .decode() for n in names]


def put(directory, name, data):
    """Writes directory/name, or removes it when data is None. In the record directory a file
    "status" sets the endpoint's answer to later requests."""
    path = os.path.join(directory, name)
    if data is None:
        os.unlink(path)
    else:
        with open(path, "w") as f:
            f.write(data)


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def no_temp_files_left():
    return not [n for n in os.listdir("/tmp") if re.match(r"ax[pdh]\.\d+\Z", n)]


# --- the scenarios --------------------------------------------------------------------

def scenario_curl_not_executable():
    copy = os.path.join(E["NSENV_WORK"], "curl-no-exec")
    shutil.copyfile(E["NSENV_CURL"], copy)
    subprocess.run(["mount", "--bind", copy, E["NSENV_CURL"]], check=True)
    run("curl not executable", 1,
        [error("required %s binary is missing or not executable" % re.escape(E["NSENV_CURL"]))])
    check(not os.path.exists(E["NSENV_ZMCONTROL_CALLS"]) and bodies() == [],
          "curl not executable: no collector ran, nothing posted")


def scenario_cache_cycle():
    for arg, text in (("--version", "ardvex-metrics-client "), ("--help", "Usage: ")):
        out = run(arg, 0, [], args=("ignored", arg))
        check(out.startswith(text) and bodies() == [] and not os.path.exists(CACHE),
              arg + ": printed, nothing collected or posted")
    run("first run", 0, [POSTED])
    check(bodies() == [FIRST_BODY], "first run: the body posted is the expected set")
    golden = read_bytes(os.path.join(HERE, "first_set.cache"))
    check(read_bytes(CACHE) == golden and os.stat(CACHE).st_mode & 0o777 == 0o644,
          "first run: the cache is the posted set, mode 0644")
    check(no_temp_files_left(), "first run: no temporary file left in /tmp")
    check(read_bytes(os.path.join(RECORDS, "request-1.txt")).startswith(
        b"POST /store/metrics.php HTTP/1.1\r\n"), "first run: HTTP/1.1 to an endpoint offering h2")

    mtime = os.stat(CACHE).st_mtime_ns
    run("unchanged, no VERBOSEDEBUG", 0, [])
    run("unchanged, VERBOSEDEBUG", 0,
        [error("no difference between the live and cache metrics", level="DEBUG")], verbose=True)
    check(len(bodies()) == 1 and os.stat(CACHE).st_mtime_ns == mtime,
          "unchanged: nothing posted, cache not rewritten")

    put(CONTROL, "enabled", "0\n")
    run("switch flipped", 0, [error(re.escape("generated metrics POST data: " + OFF_BODY),
                                    level="DEBUG"), POSTED], verbose=True)
    check(bodies()[1:] == [OFF_BODY] and read_bytes(CACHE) == golden.replace(
        b"AXENABLED1\0", b"AXENABLED0\0"),
          "switch flipped: the new set is posted and cached")


def scenario_status_500():
    put(RECORDS, "status", "500")
    run("500 without cache", 1, [error("received 500 response from metrics server: ")])
    check(not os.path.exists(CACHE), "500 without cache: no cache written")
    put(RECORDS, "status", None)
    run("200", 0, [POSTED])
    cache = read_bytes(CACHE)
    put(CONTROL, "enabled", "0")
    put(RECORDS, "status", "500")
    run("500 with a cache", 1, [error("received 500 response from metrics server: ")])
    check(read_bytes(CACHE) == cache, "500 with a cache: cache untouched")
    put(RECORDS, "status", None)
    run("next run", 0, [POSTED])
    check(bodies()[2:] == [OFF_BODY, OFF_BODY], "next run: the set is posted again")


def scenario_transfer_failures():
    def never_in_process_list(proc):
        # While the run waits on the stalled endpoint, no command line shows the body.
        seen = []
        while proc.poll() is None:
            for pid in filter(str.isdigit, os.listdir("/proc")):
                try:
                    seen.append(read_bytes("/proc/%s/cmdline" % pid))
                except OSError:
                    pass
            time.sleep(0.05)
        check(any(b"curl" in c for c in seen) and not any(b"AXLICENSE" in c for c in seen),
              "stalled endpoint: the body never shows in the process list")

    endpoint = int(E["NSENV_ENDPOINT_PID"])
    os.kill(endpoint, signal.SIGSTOP)  # it accepts connections and answers nothing
    run("stalled endpoint", 1, [transfer_failed(28, ".*"), NOT_SENT], watch=never_in_process_list)
    os.kill(endpoint, signal.SIGCONT)

    trusted = read_bytes(E["NSENV_TRUST"])
    other = os.path.join(E["NSENV_WORK"], "other")
    subprocess.run(["sh", os.path.join(E["NSENV_SOURCE_DIR"], "tests/support/make_cert.sh"),
                    other, E["NSENV_METRICS_HOST"]], check=True)
    shutil.copyfile(os.path.join(other, "cert.pem"), E["NSENV_TRUST"])
    run("untrusted certificate", 1, [transfer_failed(60, ".*"), NOT_SENT])
    with open(E["NSENV_TRUST"], "wb") as f:
        f.write(trusted)

    os.kill(endpoint, signal.SIGTERM)
    for _ in range(200):  # not our child: wait until it has gone and its port is free
        if not os.path.exists("/proc/%d" % endpoint) or b"Z" in read_bytes(
                "/proc/%d/stat" % endpoint).split(b")")[-1][:3]:
            break
        time.sleep(0.05)
    run("nothing listening", 1, [transfer_failed(7, ".*"), NOT_SENT])
    check(bodies() == [] and not os.path.exists(CACHE) and no_temp_files_left(),
          "transfer failures: no request, no cache, no temporary file left")


def scenario_identity_missing():
    put(CONTROL, "license_key", "")
    run("license_key empty", 1, [error("failed to load license_key metric", "ax_metric.cpp",
                                       "ax_metric_load"),
                                 error("failed to load metrics from server")])
    check(bodies() == [], "license_key empty: nothing posted")


def scenario_cache_is_directory():
    os.mkdir(CACHE)
    # The map layer says why, the driver what it meant, and the post stands.
    map_layer = ("err", re.compile(r"(ow_file\.cpp:\d+ ERROR ow_open_ex\(\)|ow_hashmap\.cpp:\d+"
                                   r" ERROR ow_map_save\(\)): .*%s" % os.strerror(21)))
    run("cache is a directory", 0, [map_layer, error("failed to save metrics to cache"), POSTED])
    check(bodies() == [FIRST_BODY] and os.path.isdir(CACHE),
          "cache is a directory: the set is posted, the directory left as it was")


def main():
    if len(sys.argv) != 2 or "scenario_" + sys.argv[1] not in globals():
        names = sorted(n[len("scenario_"):] for n in globals() if n.startswith("scenario_"))
        sys.exit("usage: client_scenarios.py SCENARIO\nscenarios: " + " ".join(names))
    globals()["scenario_" + sys.argv[1]]()
    if failures:
        print("%d check(s) failed" % len(failures))
        sys.exit(1)


if __name__ == "__main__":
    main()
