#!/usr/bin/env python3
"""Scenarios of the built ardvex-metrics-client, each run inside nsenv.sh (which provides the
suite's directories, the stand-ins, the HTTPS endpoint and the /dev/log listener):

    nsenv.sh BUILD_DIR python3 client_scenarios.py SCENARIO

Every system-log record a run writes is checked: facility mail, the client's tag and pid,
the priority, and the exact text (ERROR and DEBUG lines matched on the source file, the
function and the message, not on the line number).
"""
import errno
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
import types
import urllib.parse

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import mapfile  # noqa: E402

E = os.environ
CONTROL, CACHE, RECORDS = E["NSENV_CONTROL_DIR"], E["NSENV_CACHE"], E["NSENV_RECORD_DIR"]
CURL, BIN_DIR = E["NSENV_CURL"], E["NSENV_SUITE_BIN_DIR"]

# The body of the set collected from nsenv.sh's identity (K, 7, U), panel 8.8.15 and the
# switch on, and the pairs it encodes.
FIRST_BODY = ("AXLICENSE=K&PRODUCTID=7&USECODE=U&AXVER=2%2E1-12%2E2&AXTIER=ZELT&OS=xenial64"
              "&ARCH=amd64&MTA=POSTFIX&PANEL=ZIMBRA&PANELVER=8%2E8%2E15&AXENABLED=1")
FIRST_SET = [tuple(map(urllib.parse.unquote, p.split("="))) for p in FIRST_BODY.split("&")]

failures = []


def check(condition, what):
    print(("ok     " if condition else "FAILED ") + what)
    if not condition:
        failures.append(what)
    return condition


# --- expected log records ---------------------------------------------------------------

def error(message, source="ardvex-metrics-client.cpp", func="main", level="ERROR"):
    return ({"ERROR": "err", "DEBUG": "debug"}[level],
            re.compile(r"%s:\d+ %s %s\(\): %s\Z" % (re.escape(source), level, re.escape(func),
                                                   re.escape(message))))


def debug(message):
    return error(message, level="DEBUG")


def load_failed(name):
    return error("failed to load %s metric" % name, "ax_metric.cpp", "ax_metric_load")


POSTED = ("info", re.compile(r"metrics posted\Z"))
LOAD_FAILED = error("failed to load metrics from server")
NOT_SENT = error("failed to transmit POST data to metrics server")


# --- running the client ---------------------------------------------------------------

_seen = [0]  # records of the log handed out so far, markers included


def _records_of_last_run():
    """The records since the last look, up to a marker sent now: the listener handles
    datagrams in order, so once the marker is written every record of a finished run is too."""
    marker = "nsenv-marker-%d" % _seen[0]
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        s.sendto(("<191>Jan  1 00:00:00 marker: %s" % marker).encode(), "/dev/log")
    deadline = time.time() + 10
    while True:
        with open(E["NSENV_SYSLOG_FILE"]) as f:
            # A last line still being written is left for the next look.
            lines = [json.loads(line) for line in f if line.endswith("\n")]
        texts = [r.get("text") for r in lines]
        if marker in texts:
            end = texts.index(marker)
            start, _seen[0] = _seen[0], end + 1
            return lines[start:end]
        if time.time() > deadline:
            raise RuntimeError("the syslog listener did not answer")
        time.sleep(0.02)


def run(what, status, expected=None, verbose=False, own_pid_namespace=False, only=True):
    """Runs the client and checks its exit status and, unless expected is None, its records:
    all mail and tagged; with only, exactly the expected ones in order, otherwise the expected
    ones in order among others (the library's own DEBUG lines)."""
    env = {k: v for k, v in E.items() if k != "VERBOSEDEBUG"}
    if verbose:
        env["VERBOSEDEBUG"] = "1"
    # In a pid namespace of its own the client is process 1, so its temporary file names
    # (TMPDIR, a prefix and the pid) are known before it starts.
    argv = ["unshare", "--pid", "--fork"] if own_pid_namespace else []
    proc = subprocess.Popen(argv + [E["NSENV_CLIENT"]], env=env, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)
    output = proc.communicate(timeout=120)[0].decode("utf-8", "replace")
    if output:
        print("client output:\n" + output.rstrip())
    r = types.SimpleNamespace(status=proc.returncode, records=_records_of_last_run(),
                              pid=1 if own_pid_namespace else proc.pid)
    check(r.status == status, "%s: exit status %d" % (what, status))
    if expected is None:
        return r
    ok = all(x.get("facility") == "mail" and x.get("tag") == "ardvex-metrics-client"
             and isinstance(x.get("pid"), int) for x in r.records)

    # Lines of the client itself carry its pid; a child it forks logs with its own.
    def matches(x, priority, pattern):
        return (x.get("priority") == priority and pattern.match(x.get("text", ""))
                and x.get("pid") == r.pid)
    if only:
        ok = ok and len(r.records) == len(expected) and all(
            matches(x, *e) for x, e in zip(r.records, expected))
    else:
        rest = iter(r.records)
        ok = ok and all(any(matches(x, *e) for x in rest) for e in expected)
    if not check(ok, what + ": log records"):
        print("  expected:\n" + "\n".join("  %s %s" % (p, e.pattern) for p, e in expected))
        print("  got:\n" + "\n".join("  %s.%s %s[%s]: %s" % (
            x.get("facility"), x.get("priority"), x.get("tag"), x.get("pid"),
            x.get("text", x.get("raw"))) for x in r.records))
    return r


def bodies():
    names = sorted((n for n in os.listdir(RECORDS) if n.startswith("body-")),
                   key=lambda n: int(re.sub(r"\D", "", n)))
    return [read_bytes(os.path.join(RECORDS, n)).decode("utf-8", "replace") for n in names]


def put(directory, name, data):
    """Writes directory/name, or removes it when data is None. In the record directory the
    files "status", "reply" and "interim-100" set the endpoint's answers to later requests."""
    path = os.path.join(directory, name)
    if data is None:
        os.unlink(path)
    else:
        with open(path, "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode())


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def no_temp_files_left():
    return not [n for n in os.listdir("/tmp") if re.match(r"ax[dh]\.\d+\Z", n)]


# --- the scenarios --------------------------------------------------------------------

def scenario_curl_not_executable():
    # A copy of the tool without execute permission over the real one.
    copy = os.path.join(E["NSENV_WORK"], "curl-no-exec")
    shutil.copyfile(CURL, copy)
    os.chmod(copy, 0o644)
    subprocess.run(["mount", "--bind", copy, CURL], check=True)
    try:
        run("curl not executable", 1,
            [error("required %s binary is missing or not executable" % CURL)])
    finally:
        subprocess.run(["umount", CURL], check=True)
    check(not os.path.exists(E["NSENV_ZMCONTROL_CALLS"]) and bodies() == [],
          "curl not executable: no collector ran, nothing posted")


def scenario_cache_cycle():
    run("first run", 0, [POSTED])
    check(bodies() == [FIRST_BODY], "first run: the body posted is the expected set")
    check(mapfile.read_string_map(CACHE) == FIRST_SET,
          "first run: the cache is a map file of the posted set, in order")
    check(os.stat(CACHE).st_mode & 0o777 == 0o644, "first run: the cache has mode 0644")
    check(no_temp_files_left(), "first run: no temporary file left in /tmp")
    cache, mtime = read_bytes(CACHE), os.stat(CACHE).st_mtime_ns

    run("unchanged, no VERBOSEDEBUG", 0, [])
    check(len(bodies()) == 1 and read_bytes(CACHE) == cache
          and os.stat(CACHE).st_mtime_ns == mtime, "unchanged: nothing posted, cache not rewritten")
    verbose = run("unchanged, VERBOSEDEBUG", 0,
                  [debug("no difference between the live and cache metrics")], verbose=True,
                  only=False)
    check(all(r.get("priority") == "debug" for r in verbose.records) and len(bodies()) == 1,
          "unchanged, VERBOSEDEBUG: DEBUG lines only, nothing posted")

    put(CONTROL, "enabled", "0\n")
    body = FIRST_BODY.replace("AXENABLED=1", "AXENABLED=0")
    run("switch flipped", 0, [debug("generated metrics POST data: " + body), POSTED],
        verbose=True, only=False)
    check(bodies()[1:] == [body] and dict(mapfile.read_string_map(CACHE))["AXENABLED"] == "0",
          "switch flipped: the new set is posted and cached")


def scenario_status_500():
    # An answer without a body shows as an empty text after the colon.
    put(RECORDS, "status", "500")
    run("500 without cache", 1, [error("received 500 response from metrics server: ")])
    check(not os.path.exists(CACHE), "500 without cache: no cache written")
    put(RECORDS, "status", None)
    run("200", 0)
    cache = read_bytes(CACHE)
    put(CONTROL, "enabled", "0")
    put(RECORDS, "status", "500")
    put(RECORDS, "reply", "busy, try later")
    run("500 with a cache", 1,
        [error("received 500 response from metrics server: busy, try later")])
    check(read_bytes(CACHE) == cache, "500 with a cache: cache untouched")
    put(RECORDS, "status", None)
    run("next run", 0, [POSTED])
    body = FIRST_BODY.replace("AXENABLED=1", "AXENABLED=0")
    check(bodies()[2:] == [body, body], "next run: the set is posted again")


def scenario_interim_100():
    put(RECORDS, "interim-100", "")
    run("interim 100 then 200", 0, [POSTED])
    check(os.path.exists(CACHE), "interim 100 then 200: cache written")


def scenario_nothing_listening():
    pid = int(E["NSENV_ENDPOINT_PID"])
    os.kill(pid, signal.SIGTERM)
    # Not our child: wait until it has gone, and its port is free again.
    for _ in range(200):
        try:
            os.kill(pid, 0)
        except ProcessLookupError:
            break
        time.sleep(0.05)
    run("nothing listening", 1, [NOT_SENT])
    check(not os.path.exists(CACHE) and no_temp_files_left(),
          "nothing listening: no cache, no temporary file left in /tmp")


def scenario_panel_prints_nothing():
    open(E["NSENV_ZIMBRA_RELEASE"], "w").close()
    run("panel tool prints nothing", 1,
        [error("failed to read from pipe: No data available", "metrics.cpp",
               "__read_line_from_pipe"), load_failed("web_panel_version"), LOAD_FAILED])
    check(bodies() == [], "panel tool prints nothing: nothing posted")


def scenario_identity_missing():
    not_a_number = error("product id in [%sproduct_id] is not a decimal 32-bit integer" % CONTROL,
                         "metrics.cpp", "identity_key_and_product")
    for what, name, data, expected in [
            ("license_key missing", "license_key", None, [load_failed("license_key")]),
            ("server_id empty", "server_id", b"", [load_failed("permitted_use_code")]),
            ("product_id not a number", "product_id", b"7 apples\n",
             [not_a_number, load_failed("product_id")])]:
        saved = read_bytes(os.path.join(CONTROL, name))
        put(CONTROL, name, data)
        run(what, 1, expected + [LOAD_FAILED])
        put(CONTROL, name, saved)
    check(bodies() == [], "missing identity: nothing posted")
    # White space around the values is the loader's to trim; inner CR and LF of the server
    # identifier are removed.
    put(CONTROL, "license_key", " K\n")
    put(CONTROL, "product_id", "\t 0007 \n")
    put(CONTROL, "server_id", "\r\nU\r\n")
    run("identity with surrounding white space", 0, [POSTED])
    check(bodies() == [FIRST_BODY], "identity with surrounding white space: posted as K, 7, U")


def scenario_cache_is_directory():
    os.mkdir(CACHE)
    # The map layer's line (from the file layer or from the save itself) gives the system's
    # reason, the driver says what it meant, and the post stands.
    map_layer = ("err", re.compile(r"(ow_file\.cpp:\d+ ERROR ow_open_ex\(\)|ow_hashmap\.cpp:\d+"
                                   r" ERROR ow_map_save\(\)): .*%s" % os.strerror(errno.EISDIR)))
    run("cache is a directory", 0, [map_layer, error("failed to save metrics to cache"), POSTED])
    check(bodies() == [FIRST_BODY] and os.path.isdir(CACHE),
          "cache is a directory: the set is posted, the directory left as it was")


def scenario_shell_metacharacters():
    key = "K'; touch /tmp/pwned; echo '$(touch /tmp/pwned2)`touch /tmp/pwned3`\"&x=y|z>w<v#1"
    put(CONTROL, "license_key", key)
    run("quote and metacharacters", 0, [POSTED])
    encoded = ("K'%3B%20touch%20%2Ftmp%2Fpwned%3B%20echo%20'$(touch%20%2Ftmp%2Fpwned2)`touch"
               "%20%2Ftmp%2Fpwned3`\"&x=y|z%3Ew%3Cv%231")
    posted = bodies()
    if not check(posted == [FIRST_BODY.replace("AXLICENSE=K&", "AXLICENSE=%s&" % encoded)],
                 "quote and metacharacters: value posted intact"):
        print("  posted: %r" % posted)
    check(not any(os.path.exists("/tmp/pwned" + s) for s in ("", "2", "3")),
          "quote and metacharacters: nothing was run")
    check(dict(mapfile.read_string_map(CACHE))["AXLICENSE"] == key,
          "quote and metacharacters: the cache holds the value as it is")


def scenario_temp_file_links():
    for prefix in ("axd", "axh"):
        with open("/tmp/victim-" + prefix, "w") as f:
            f.write("precious\n")
        os.symlink("/tmp/victim-" + prefix, "/tmp/%s.1" % prefix)
    # The transfer layer refuses the first name it finds taken; the run fails, nothing cached.
    run("links at the temporary names", 1, [
        error("refusing to let [/tmp/axd.1] be written: it exists and is not a regular file",
              "common_libs.cpp", "fetch_remote_url"), NOT_SENT], own_pid_namespace=True)
    check(all(read_bytes("/tmp/victim-" + p) == b"precious\n" for p in ("axd", "axh")),
          "links at the temporary names: nothing written through them")
    check(bodies() == [] and not os.path.exists(CACHE),
          "links at the temporary names: nothing posted or cached")


def scenario_stand_ins():
    # That ardvex-secure runs the panel tool is proven by every post (PANELVER).
    secure = os.path.join(BIN_DIR, "ardvex-secure")

    def fails(what, argv, status, stderr=""):
        p = subprocess.run(argv, capture_output=True, text=True)
        check(p.returncode == status and p.stdout == "" and stderr in p.stderr, what)

    fails("ardvex-secure refuses a path that leaves the suite's directory through ..",
          [secure, BIN_DIR.rstrip("/") + "/../../../../../bin/echo", "escaped"], 126, "refusing")
    os.symlink("/bin/echo", os.path.join(BIN_DIR, "innocent"))
    fails("ardvex-secure refuses a link in the suite's directory that leads out of it",
          [secure, os.path.join(BIN_DIR, "innocent"), "escaped"], 126)
    fails("ardvex-secure: a missing program is 127", [secure, os.path.join(BIN_DIR, "missing")],
          127)
    zmcontrol = os.path.join(E["NSENV_ZIMBRA_DIR"], "bin", "zmcontrol")
    os.rename(zmcontrol, zmcontrol + ".away")
    fails("ardvex-panel-version without Zimbra fails with a message on standard error",
          [os.path.join(BIN_DIR, "ardvex-panel-version")], 1, "Zimbra is not installed")


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
