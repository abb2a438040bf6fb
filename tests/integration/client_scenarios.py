#!/usr/bin/env python3
"""nsenv.sh BUILD_DIR python3 client_scenarios.py SCENARIO: what the main of the built
ardvex-metrics-client decides (the modules have their own tests). Every system-log record a run
writes is checked: facility mail, the client's tag and pid, priority, source file, function and
message."""
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

E = os.environ
CONTROL, CACHE = Path(E["NSENV_CONTROL_DIR"]), Path(E["NSENV_CACHE"])
RECORDS = E["NSENV_RECORD_DIR"]
STATUS = Path(RECORDS, "status")  # while it exists, the endpoint's answer
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
            re.compile(r"%s:\d+ %s %s\(\): %s\Z" % (re.escape(source), level, func, message)))


POSTED = ("info", re.compile(r"metrics posted\Z"))
NOT_SENT = error("failed to transmit POST data to metrics server")
REFUSED_500 = error("received 500 response from metrics server: ")


def transfer_failed(code):
    return error(r"transfer tool exited with code \[%d\]: curl: \(%d\) .*" % (code, code),
                 "common_libs.cpp", "fetch_remote_url")


def records_of_last_run():
    """The records since the last look, up to a marker sent now: the listener keeps the order of
    the datagrams, so once the marker is in, every record of a finished run is."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        s.sendto(b"<191>Jan  1 00:00:00 marker: nsenv-marker", "/dev/log")
    log = Path(E["NSENV_SYSLOG_FILE"])
    for _ in range(500):
        records = [json.loads(line) for line in log.read_text().split("\n")[:-1]]  # whole lines
        if records and records[-1].get("text") == "nsenv-marker":
            log.write_text("")  # the listener appends: its next record starts the file
            return records[:-1]
        time.sleep(0.02)
    raise RuntimeError("the syslog listener did not answer")


def run(what, status, expected, verbose=False, args=(), watch=None):
    """Runs the client and checks its exit status and records: exactly the expected ones in
    order (with verbose, in order among the library's DEBUG lines). watch(process) is called
    while it runs. Returns its output."""
    env = dict(E, VERBOSEDEBUG="1")
    if not verbose:
        del env["VERBOSEDEBUG"]
    proc = subprocess.Popen([E["NSENV_CLIENT"], *args], env=env, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)
    if watch:
        watch(proc)
    output = proc.communicate(timeout=120)[0].decode("utf-8", "replace")
    records = records_of_last_run()
    check(proc.returncode == status, "%s: exit status %d" % (what, status))

    def matches(x, priority, pattern):
        return (x.get("priority"), x.get("facility"), x.get("tag"), x.get("pid")) == (
            priority, "mail", "ardvex-metrics-client", proc.pid) and pattern.match(x["text"])
    rest = iter(records if verbose else records[:len(expected)])
    ok = (verbose or len(records) == len(expected)) and all(
        any(matches(x, *e) for x in rest) for e in expected)
    if not check(ok, what + ": log records"):
        print("  expected:\n" + "\n".join("  %s %s" % (p, e.pattern) for p, e in expected))
        print("  got:\n" + "\n".join("  %s" % x for x in records))
    return output


def bodies():
    """The bodies the endpoint received, in order."""
    got = []
    while (body := Path(RECORDS, "body-%d.bin" % (len(got) + 1))).exists():
        got.append(body.read_text())
    return got


def no_temp_files_left():
    return not [n for n in os.listdir("/tmp") if re.match(r"ax[pdh]\.\d+\Z", n)]


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
        check(out.startswith(text) and bodies() == [] and not CACHE.exists(),
              arg + ": printed, nothing collected or posted")
    run("first run", 0, [POSTED])
    golden = Path(__file__).with_name("first_set.cache").read_bytes()
    check(bodies() == [FIRST_BODY] and CACHE.read_bytes() == golden
          and CACHE.stat().st_mode & 0o777 == 0o644 and no_temp_files_left(),
          "first run: the expected set posted and cached (mode 0644), no temporary file left")
    check(Path(RECORDS, "request-1.txt").read_bytes().startswith(
        b"POST /store/metrics.php HTTP/1.1\r\n"), "first run: HTTP/1.1 to an endpoint offering h2")

    mtime = CACHE.stat().st_mtime_ns
    run("unchanged, no VERBOSEDEBUG", 0, [])
    run("unchanged, VERBOSEDEBUG", 0,
        [error("no difference between the live and cache metrics", level="DEBUG")], verbose=True)
    check(len(bodies()) == 1 and CACHE.stat().st_mtime_ns == mtime,
          "unchanged: nothing posted, cache not rewritten")

    (CONTROL / "enabled").write_text("0\n")
    run("switch flipped", 0, [error(re.escape("generated metrics POST data: " + OFF_BODY),
                                    level="DEBUG"), POSTED], verbose=True)
    check(bodies()[1:] == [OFF_BODY]
          and CACHE.read_bytes() == golden.replace(b"AXENABLED1\0", b"AXENABLED0\0"),
          "switch flipped: the new set is posted and cached")


def scenario_status_500():
    STATUS.write_text("500")
    run("500 without cache", 1, [REFUSED_500])
    check(not CACHE.exists(), "500 without cache: no cache written")
    STATUS.unlink()
    run("200", 0, [POSTED])
    cache = CACHE.read_bytes()
    (CONTROL / "enabled").write_text("0")
    STATUS.write_text("500")
    run("500 with a cache", 1, [REFUSED_500])
    check(CACHE.read_bytes() == cache, "500 with a cache: cache untouched")
    STATUS.unlink()
    run("next run", 0, [POSTED])
    check(bodies()[2:] == [OFF_BODY, OFF_BODY], "next run: the set is posted again")


def scenario_transfer_failures():
    def never_in_process_list(proc):
        # While the run waits on the stalled endpoint, no command line shows the body.
        seen = b""
        while proc.poll() is None:
            seen += subprocess.run(["ps", "-ww", "-eo", "args"], capture_output=True).stdout
            time.sleep(0.05)
        check(b"curl" in seen and b"AXLICENSE" not in seen,
              "stalled endpoint: the body never shows in the process list")

    endpoint = int(E["NSENV_ENDPOINT_PID"])
    os.kill(endpoint, signal.SIGSTOP)  # it accepts connections and answers nothing
    run("stalled endpoint", 1, [transfer_failed(28), NOT_SENT], watch=never_in_process_list)
    os.kill(endpoint, signal.SIGCONT)

    trust, other = Path(E["NSENV_TRUST"]), os.path.join(E["NSENV_WORK"], "other")
    trusted = trust.read_bytes()
    subprocess.run(["sh", os.path.join(E["NSENV_SOURCE_DIR"], "tests/support/make_cert.sh"),
                    other, E["NSENV_METRICS_HOST"]], check=True)
    shutil.copyfile(os.path.join(other, "cert.pem"), trust)
    run("untrusted certificate", 1, [transfer_failed(60), NOT_SENT])
    trust.write_bytes(trusted)

    # The metrics host moved to a loopback address where nothing listens.
    hosts = Path("/etc/hosts")
    hosts.write_text(hosts.read_text().replace("127.0.0.1\t" + E["NSENV_METRICS_HOST"],
                                               "127.0.0.2\t" + E["NSENV_METRICS_HOST"]))
    run("nothing listening", 1, [transfer_failed(7), NOT_SENT])
    check(bodies() == [] and not CACHE.exists() and no_temp_files_left(),
          "transfer failures: no request, no cache, no temporary file left")


def scenario_identity_missing():
    (CONTROL / "license_key").write_text("")
    run("license_key empty", 1, [error("failed to load license_key metric", "ax_metric.cpp",
                                       "ax_metric_load"),
                                 error("failed to load metrics from server")])
    check(bodies() == [], "license_key empty: nothing posted")


def scenario_cache_is_directory():
    CACHE.mkdir()
    # The map layer says why, the driver what it meant, and the post stands.
    map_layer = ("err", re.compile(r"(ow_file\.cpp:\d+ ERROR ow_open_ex\(\)|ow_hashmap\.cpp:\d+"
                                   r" ERROR ow_map_save\(\)): .*%s" % os.strerror(21)))
    run("cache is a directory", 0, [map_layer, error("failed to save metrics to cache"), POSTED])
    check(bodies() == [FIRST_BODY] and CACHE.is_dir(),
          "cache is a directory: the set is posted, the directory left as it was")


if __name__ == "__main__":
    if len(sys.argv) != 2 or "scenario_" + sys.argv[1] not in globals():
        names = sorted(n[len("scenario_"):] for n in globals() if n.startswith("scenario_"))
        sys.exit("usage: client_scenarios.py SCENARIO\nscenarios: " + " ".join(names))
    globals()["scenario_" + sys.argv[1]]()
    if failures:
        sys.exit("%d check(s) failed" % len(failures))
