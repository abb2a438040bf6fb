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
import socket
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import mapfile  # noqa: E402

E = os.environ
CLIENT = E["NSENV_CLIENT"]
CONTROL = E["NSENV_CONTROL_DIR"]
CACHE = E["NSENV_CACHE"]
RECORDS = E["NSENV_RECORD_DIR"]
SYSLOG = E["NSENV_SYSLOG_FILE"]
CURL = E["NSENV_CURL"]
BIN_DIR = E["NSENV_SUITE_BIN_DIR"]
WORK = E["NSENV_WORK"]

# The body of the set collected from nsenv.sh's identity (K, 7, U), Zimbra 8.8.15 and the
# switch on.
FIRST_BODY = ("AXLICENSE=K&PRODUCTID=7&USECODE=U&AXVER=2%2E1-12%2E2&AXTIER=ZELT&OS=xenial64"
              "&ARCH=amd64&MTA=POSTFIX&PANEL=ZIMBRA&PANELVER=8%2E8%2E15&AXENABLED=1")
FIRST_SET = [("AXLICENSE", "K"), ("PRODUCTID", "7"), ("USECODE", "U"), ("AXVER", "2.1-12.2"),
             ("AXTIER", "ZELT"), ("OS", "xenial64"), ("ARCH", "amd64"), ("MTA", "POSTFIX"),
             ("PANEL", "ZIMBRA"), ("PANELVER", "8.8.15"), ("AXENABLED", "1")]

failures = []


def check(condition, what):
    print(("ok     " if condition else "FAILED ") + what)
    if not condition:
        failures.append(what)
    return condition


# --- expected log records ---------------------------------------------------------------

def error(source, func, message):
    return ("err", re.compile(r"%s:\d+ ERROR %s\(\): %s\Z" % (re.escape(source), re.escape(func),
                                                              re.escape(message))))


def debug(source, func, message):
    return ("debug", re.compile(r"%s:\d+ DEBUG %s\(\): %s\Z" % (re.escape(source),
                                                                re.escape(func),
                                                                re.escape(message))))


def info(message):
    return ("info", re.compile(re.escape(message) + r"\Z"))


def main_error(message):
    return error("ardvex-metrics-client.cpp", "main", message)


POSTED = info("metrics posted")
LOAD_FAILED = main_error("failed to load metrics from server")


def load_failed(name):
    return error("ax_metric.cpp", "ax_metric_load", "failed to load %s metric" % name)


# --- running the client ---------------------------------------------------------------

class Run:
    def __init__(self, status, pid, records, output):
        self.status, self.pid, self.records, self.output = status, pid, records, output


_marker = [0]


def _records_until_marker(start):
    """The records after the first start lines of the log, up to a marker sent now: the
    listener handles datagrams in order, so once the marker is written every record of a
    finished run is too."""
    _marker[0] += 1
    marker = "nsenv-marker-%d" % _marker[0]
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        s.sendto(("<191>Jan  1 00:00:00 marker: %s" % marker).encode(), "/dev/log")
    deadline = time.time() + 10
    while True:
        with open(SYSLOG) as f:
            # A last line still being written is left for the next look.
            lines = [json.loads(line) for line in f if line.endswith("\n")]
        texts = [r.get("text") for r in lines]
        if marker in texts:
            end = texts.index(marker)
            return lines[start:end], end + 1
        if time.time() > deadline:
            raise RuntimeError("the syslog listener did not answer")
        time.sleep(0.02)


_log_position = [0]


def run_client(extra_env=None, verbose=False, own_pid_namespace=False):
    env = {k: v for k, v in E.items() if k != "VERBOSEDEBUG"}
    if verbose:
        env["VERBOSEDEBUG"] = "1"
    env.update(extra_env or {})
    # In a pid namespace of its own the client is process 1, so its temporary file names
    # (TMPDIR, a prefix and the pid) are known before it starts.
    argv = ["unshare", "--pid", "--fork", CLIENT] if own_pid_namespace else [CLIENT]
    proc = subprocess.Popen(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    output, _ = proc.communicate(timeout=120)
    records, _log_position[0] = _records_until_marker(_log_position[0])
    pid = 1 if own_pid_namespace else proc.pid
    run = Run(proc.returncode, pid, records, output.decode("utf-8", "replace"))
    if run.output:
        print("client output:\n" + run.output.rstrip())
    return run


def show(records):
    return "\n".join("  %s.%s %s[%s]: %s" % (r.get("facility"), r.get("priority"), r.get("tag"),
                                            r.get("pid"), r.get("text", r.get("raw")))
                     for r in records) or "  (none)"


def check_records(run, expected, what, only_expected=True):
    """Every record is mail and tagged; with only_expected the records
    are exactly the expected ones in order, otherwise the expected ones appear in order
    among others (the library's own DEBUG lines)."""
    ok = all(r.get("facility") == "mail" and r.get("tag") == "ardvex-metrics-client"
             and isinstance(r.get("pid"), int) for r in run.records)
    position = 0
    matched = 0
    for priority, pattern in expected:
        while position < len(run.records):
            r = run.records[position]
            position += 1
            # Lines of the client itself carry its pid; a child it forks logs with its own.
            if (r.get("priority") == priority and pattern.match(r.get("text", ""))
                    and r.get("pid") == run.pid):
                matched += 1
                break
            if only_expected:
                break
    ok = ok and matched == len(expected)
    if only_expected:
        ok = ok and len(run.records) == len(expected)
    if not check(ok, what + ": log records"):
        print("  expected:\n" + "\n".join("  %s %s" % (p, r.pattern) for p, r in expected))
        print("  got:\n" + show(run.records))


def bodies():
    names = sorted((n for n in os.listdir(RECORDS) if n.startswith("body-")),
                   key=lambda n: int(re.sub(r"\D", "", n) or 0))
    out = []
    for n in names:
        with open(os.path.join(RECORDS, n), "rb") as f:
            out.append(f.read().decode("utf-8", "replace"))
    return out


def write_control(name, data):
    with open(os.path.join(CONTROL, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def set_status(code):
    with open(os.path.join(RECORDS, "status"), "w") as f:
        f.write("%d\n" % code)


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def temp_files_left():
    return [n for n in os.listdir("/tmp") if re.match(r"ax[dh]\.\d+\Z", n)]


# --- the scenarios --------------------------------------------------------------------

def scenario_curl_not_executable():
    # A copy of the tool without execute permission over the real one.
    copy = os.path.join(WORK, "curl-no-exec")
    with open(copy, "wb") as f:
        f.write(read_bytes(CURL))
    os.chmod(copy, 0o644)
    subprocess.run(["mount", "--bind", copy, CURL], check=True)
    try:
        run = run_client()
    finally:
        subprocess.run(["umount", CURL], check=True)
    check(run.status == 1, "exit status 1")
    check_records(run, [main_error("required %s binary is missing or not executable" % CURL)],
                  "curl not executable")
    check(not os.path.exists(E["NSENV_ZMCONTROL_CALLS"]), "no collector ran (Zimbra not asked)")
    check(bodies() == [], "nothing posted")


def scenario_cache_cycle():
    first = run_client()
    check(first.status == 0, "first run: exit status 0")
    check_records(first, [POSTED], "first run")
    check(bodies() == [FIRST_BODY], "first run: the body posted is the expected set")
    try:
        check(mapfile.read_string_map(CACHE) == FIRST_SET,
              "first run: the cache is a map file of the posted set, in order")
    except (OSError, mapfile.MapFileError) as e:
        check(False, "first run: the cache is a valid map file (%s)" % e)
    check(os.path.exists(CACHE) and (os.stat(CACHE).st_mode & 0o777) == 0o644,
          "first run: the cache has mode 0644")
    check(temp_files_left() == [], "first run: no temporary file left in /tmp")
    cache = read_bytes(CACHE)
    mtime = os.stat(CACHE).st_mtime_ns

    quiet = run_client()
    check(quiet.status == 0, "unchanged: exit status 0")
    check_records(quiet, [], "unchanged, no VERBOSEDEBUG")
    check(len(bodies()) == 1, "unchanged: nothing posted")
    check(read_bytes(CACHE) == cache and os.stat(CACHE).st_mtime_ns == mtime,
          "unchanged: cache not rewritten")

    verbose = run_client(verbose=True)
    check(verbose.status == 0, "unchanged, VERBOSEDEBUG: exit status 0")
    check_records(verbose, [debug("ardvex-metrics-client.cpp", "main",
                                  "no difference between the live and cache metrics")],
                  "unchanged, VERBOSEDEBUG", only_expected=False)
    check(all(r.get("priority") == "debug" for r in verbose.records),
          "unchanged, VERBOSEDEBUG: DEBUG lines only")
    check(len(bodies()) == 1, "unchanged, VERBOSEDEBUG: nothing posted")

    write_control("enabled", "0\n")
    flipped = run_client(verbose=True)
    body = FIRST_BODY.replace("AXENABLED=1", "AXENABLED=0")
    check(flipped.status == 0, "switch flipped: exit status 0")
    check_records(flipped, [debug("ardvex-metrics-client.cpp", "main",
                                  "generated metrics POST data: " + body), POSTED],
                  "switch flipped", only_expected=False)
    check(bodies()[1:] == [body], "switch flipped: the new set is posted")
    check(dict(mapfile.read_string_map(CACHE)).get("AXENABLED") == "0",
          "switch flipped: the cache holds the new set")


def scenario_status_500():
    # An answer without a body shows as an empty text after the colon.
    set_status(500)
    refused = run_client()
    check(refused.status == 1, "500 without cache: exit status 1")
    check_records(refused, [main_error("received 500 response from metrics server: ")],
                  "500 without cache")
    check(not os.path.exists(CACHE), "500 without cache: no cache written")

    set_status(200)
    check(run_client().status == 0, "200: posted")
    cache = read_bytes(CACHE)
    write_control("enabled", "0")
    restart_endpoint(["--reply", "busy, try later"])
    set_status(500)
    again = run_client()
    check(again.status == 1, "500 with a cache: exit status 1")
    check_records(again, [main_error("received 500 response from metrics server: "
                                     "busy, try later")], "500 with a cache")
    check(read_bytes(CACHE) == cache, "500 with a cache: cache untouched")
    set_status(200)
    retry = run_client()
    check(retry.status == 0, "next run: exit status 0")
    check_records(retry, [POSTED], "next run")
    check(len(bodies()) == 2 and bodies()[1].endswith("AXENABLED=0"),
          "next run: the set is posted again")


def scenario_interim_100():
    restart_endpoint(["--interim-100"])
    run = run_client()
    check(run.status == 0, "interim 100 then 200: exit status 0")
    check_records(run, [POSTED], "interim 100 then 200")
    check(os.path.exists(CACHE), "interim 100 then 200: cache written")


def scenario_nothing_listening():
    stop_endpoint()
    run = run_client()
    check(run.status == 1, "nothing listening: exit status 1")
    check_records(run, [main_error("failed to transmit POST data to metrics server")],
                  "nothing listening")
    check(not os.path.exists(CACHE), "nothing listening: no cache")
    check(temp_files_left() == [], "nothing listening: no temporary file left in /tmp")


def scenario_panel_prints_nothing():
    with open(E["NSENV_ZIMBRA_RELEASE"], "w"):
        pass
    run = run_client()
    check(run.status == 1, "panel tool prints nothing: exit status 1")
    check_records(run, [error("metrics.cpp", "__read_line_from_pipe",
                              "failed to read from pipe: No data available"),
                        load_failed("web_panel_version"), LOAD_FAILED],
                  "panel tool prints nothing")
    check(bodies() == [], "panel tool prints nothing: nothing posted")


def scenario_identity_missing():
    cases = [
        ("license_key missing", "license_key", None, [load_failed("license_key")]),
        ("server_id empty", "server_id", b"", [load_failed("permitted_use_code")]),
        ("product_id not a number", "product_id", b"7 apples\n",
         [error("metrics.cpp", "identity_key_and_product",
                "product id in [%sproduct_id] is not a decimal 32-bit integer" % CONTROL),
          load_failed("product_id")]),
        ("product_id beyond 32 bits", "product_id", b"2147483648",
         [error("metrics.cpp", "identity_key_and_product",
                "product id in [%sproduct_id] is not a decimal 32-bit integer" % CONTROL),
          load_failed("product_id")]),
    ]
    for what, name, data, expected in cases:
        path = os.path.join(CONTROL, name)
        saved = read_bytes(path)
        if data is None:
            os.unlink(path)
        else:
            write_control(name, data)
        run = run_client()
        check(run.status == 1, what + ": exit status 1")
        check_records(run, expected + [LOAD_FAILED], what)
        write_control(name, saved)
    check(bodies() == [], "missing identity: nothing posted")
    # White space around the values is the loader's to trim; inner CR and LF of the server
    # identifier are removed.
    write_control("license_key", " K\n")
    write_control("product_id", "\t 0007 \n")
    write_control("server_id", "\r\nU\r\n")
    run = run_client()
    check(run.status == 0 and bodies() == [FIRST_BODY],
          "identity with surrounding white space: posted as K, 7, U")


def scenario_cache_is_directory():
    os.mkdir(CACHE)
    run = run_client()
    check(run.status == 0, "cache is a directory: exit status 0")
    check(bodies() == [FIRST_BODY], "cache is a directory: the set is posted")
    # The map layer's line (from the file layer or from the save itself) gives the system's
    # reason, the driver says what it meant, and the post stands.
    map_layer = ("err", re.compile(r"(ow_file\.cpp:\d+ ERROR ow_open_ex\(\)|ow_hashmap\.cpp:\d+"
                                   r" ERROR ow_map_save\(\)): .*%s" % os.strerror(errno.EISDIR)))
    check_records(run, [map_layer,
                        main_error("failed to save metrics to cache"), POSTED],
                  "cache is a directory")
    check(os.path.isdir(CACHE), "cache is a directory: left as it was")


def scenario_shell_metacharacters():
    key = "K'; touch /tmp/pwned; echo '$(touch /tmp/pwned2)`touch /tmp/pwned3`\"&x=y|z>w<v#1"
    write_control("license_key", key)
    run = run_client()
    check(run.status == 0, "quote and metacharacters: exit status 0")
    check_records(run, [POSTED], "quote and metacharacters")
    encoded = ("K'%3B%20touch%20%2Ftmp%2Fpwned%3B%20echo%20'$(touch%20%2Ftmp%2Fpwned2)`touch"
               "%20%2Ftmp%2Fpwned3`\"&x=y|z%3Ew%3Cv%231")
    posted = bodies()
    check(posted == [FIRST_BODY.replace("AXLICENSE=K&", "AXLICENSE=%s&" % encoded)],
          "quote and metacharacters: value posted intact")
    if len(posted) == 1 and not posted[0].startswith("AXLICENSE=" + encoded):
        print("  posted: " + posted[0])
    check(not any(os.path.exists("/tmp/pwned" + s) for s in ("", "2", "3")),
          "quote and metacharacters: nothing was run")
    check(dict(mapfile.read_string_map(CACHE)).get("AXLICENSE") == key,
          "quote and metacharacters: the cache holds the value as it is")


def scenario_temp_file_links():
    victims = {}
    for prefix in ("axd", "axh"):
        victim = "/tmp/victim-" + prefix
        with open(victim, "w") as f:
            f.write("precious\n")
        os.symlink(victim, "/tmp/%s.1" % prefix)
        victims[victim] = "precious\n"
    run = run_client(own_pid_namespace=True)
    for victim, text in victims.items():
        with open(victim) as f:
            check(f.read() == text, "links at the temporary names: %s not written through"
                  % victim)
    # The transfer layer refuses to use the names; the run fails and nothing is cached.
    check(run.status == 1, "links at the temporary names: exit status 1")
    refused = ("err", re.compile(r"common_libs\.cpp:\d+ ERROR fetch_remote_url\(\): "
                                 r".*/tmp/ax[dh]\.1\b.*"))
    check_records(run, [refused, main_error("failed to transmit POST data to metrics server")],
                  "links at the temporary names")
    check(bodies() == [] and not os.path.exists(CACHE),
          "links at the temporary names: nothing posted or cached")


def scenario_stand_ins():
    secure = os.path.join(BIN_DIR, "ardvex-secure")
    panel = os.path.join(BIN_DIR, "ardvex-panel-version")
    out = subprocess.run([secure, panel], capture_output=True, text=True)
    check(out.returncode == 0 and out.stdout.startswith("Release 8.8.15_GA_3869"),
          "ardvex-secure runs the panel tool, which prints the release line")
    escape = BIN_DIR.rstrip("/") + "/../../../../../bin/echo"
    out = subprocess.run([secure, escape, "escaped"], capture_output=True, text=True)
    check(out.returncode == 126 and "escaped" not in out.stdout and "refusing" in out.stderr,
          "ardvex-secure refuses a path that leaves the suite's directory through ..")
    link = os.path.join(BIN_DIR, "innocent")
    os.symlink("/bin/echo", link)
    out = subprocess.run([secure, link, "escaped"], capture_output=True, text=True)
    check(out.returncode == 126 and "escaped" not in out.stdout,
          "ardvex-secure refuses a link in the suite's directory that leads out of it")
    os.unlink(link)
    out = subprocess.run([secure, os.path.join(BIN_DIR, "missing")], capture_output=True)
    check(out.returncode == 127, "ardvex-secure: a missing program is 127")
    zmcontrol = os.path.join(E["NSENV_ZIMBRA_DIR"], "bin", "zmcontrol")
    os.rename(zmcontrol, zmcontrol + ".away")
    out = subprocess.run([panel], capture_output=True, text=True)
    check(out.returncode == 1 and out.stdout == "" and "Zimbra is not installed" in out.stderr,
          "ardvex-panel-version without Zimbra fails with a message on standard error")
    os.rename(zmcontrol + ".away", zmcontrol)


# --- the endpoint ---------------------------------------------------------------------

_endpoint = [None]


def stop_endpoint():
    pid = int(E["NSENV_ENDPOINT_PID"]) if E.get("NSENV_ENDPOINT_PID") else None
    if _endpoint[0] is not None:
        _endpoint[0].terminate()
        _endpoint[0].wait()
        _endpoint[0] = None
    elif pid:
        os.kill(pid, 15)
        E["NSENV_ENDPOINT_PID"] = ""
        # Wait until the port is free again.
        for _ in range(200):
            try:
                os.kill(pid, 0)
            except ProcessLookupError:
                break
            time.sleep(0.05)


def restart_endpoint(args):
    """Replaces the endpoint by one started with args; it counts bodies from 1 again, so the
    bodies recorded so far are dropped."""
    stop_endpoint()
    for name in os.listdir(RECORDS):
        if name.startswith(("body-", "request-")):
            os.unlink(os.path.join(RECORDS, name))
    script = os.path.join(E["NSENV_SOURCE_DIR"], "tests", "support", "https_endpoint.py")
    proc = subprocess.Popen([sys.executable, script, "--bind", "127.0.0.1", "--port",
                             E["NSENV_ENDPOINT_PORT"], "--cert", E["NSENV_CERT"], "--key",
                             E["NSENV_KEY"], "--record-dir", RECORDS] + args,
                            stdout=subprocess.PIPE, text=True)
    line = proc.stdout.readline()
    if not line.startswith("ready"):
        raise RuntimeError("the HTTPS endpoint did not start: " + line)
    _endpoint[0] = proc


def main():
    if len(sys.argv) != 2 or "scenario_" + sys.argv[1] not in globals():
        names = sorted(n[len("scenario_"):] for n in globals() if n.startswith("scenario_"))
        sys.exit("usage: client_scenarios.py SCENARIO\nscenarios: " + " ".join(names))
    try:
        globals()["scenario_" + sys.argv[1]]()
    finally:
        if _endpoint[0] is not None:
            stop_endpoint()
    if failures:
        print("%d check(s) failed" % len(failures))
        sys.exit(1)


if __name__ == "__main__":
    main()
