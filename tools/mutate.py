#!/usr/bin/env python3
"""mutate.py: measures how many small faults the tests catch.

    tools/mutate.py [--root DIR] [--build DIR] [--fraction F] [--seed S] [--list] [FILE...]

Each mutant changes one place of one source file: a comparison flipped, && and || swapped,
an integer constant moved by one, an if condition negated, or a one-line statement dropped.
For each, the file is changed, the tests of the file's directory are rebuilt and run in an
already configured build (the debug preset's by default), and the file is restored. A mutant
that does not compile is not counted. A mutant is picked when a hash of the seed, the file,
the text of its line and the change is below the fraction, so two versions of the tree are
measured on the same mutants wherever the lines did not change. Prints one line per mutant
(killed, SURVIVED or not built) and the score.
"""
import argparse
import hashlib
import os
import re
import subprocess
import sys

DEFAULT_FILES = ["corelib/ow_clibs.cpp", "corelib/ow_compat.cpp", "corelib/ow_file.cpp",
                 "corelib/ow_log.cpp", "corelib/ow_nulltermlist.cpp", "corelib/ow_pipe.cpp",
                 "corelib/ow_stringutils.cpp", "corelib/ow_child.cpp", "common/common_libs.cpp",
                 "metrics_client/ax_metric.cpp", "metrics_client/metrics.cpp",
                 "metrics_client/ardvex-metrics-client.cpp"]
# Test labels run for a file in each directory, and test names left out (other modules').
LABELS = {"corelib": ["corelib", "c_api"], "common": ["common"], "engine": ["engine", "c_api"],
          "metrics_client": ["metrics_client", "integration"],
          "known_sender_forgery": ["known_sender_forgery", "engine"], "tools": ["tools", "policyd"]}
# Programs the labels' tests run, built beside the test programs.
PROGRAMS = {"integration": ["ardvex-metrics-client"],
            "tools": ["ardvex-admin", "ardvex-policyd", "ardvex-map", "ardvex-regex-compile"],
            "policyd": ["ardvex-admin", "ardvex-policyd"]}
EXCLUDE = "hashmap|tiny_rex|regex"

SWAPS = [("==", "!="), ("!=", "=="), ("<=", "<"), (">=", ">"), ("&&", "||"), ("||", "&&")]
STATEMENT = re.compile(r"^\s+[A-Za-z_:][\w:.\->\[\]]*\s*(\(.*\)|[-+*/|&]?=.*|\+\+|--);\s*$")


def code_part(line):
    """The line with string and character literals blanked and a // comment cut off."""
    out = re.sub(r'"(\\.|[^"\\])*"', lambda m: '"' + " " * (len(m.group()) - 2) + '"', line)
    out = re.sub(r"'(\\.|[^'\\])'", lambda m: " " * len(m.group()), out)
    return out.split("//", 1)[0]


def mutants_of(path, text):
    """(line index, kind, new line) for every mutation of the file."""
    lines = text.split("\n")
    in_comment = False
    for i, line in enumerate(lines):
        s = line.strip()
        if in_comment or s.startswith(("/*", "*", "#", "static_assert")):
            in_comment = (in_comment or s.startswith("/*")) and "*/" not in s
            continue
        code = code_part(line)
        for old, new in SWAPS:
            for m in re.finditer(re.escape(old), code):
                yield i, "%s->%s@%d" % (old, new, m.start()), line[:m.start()] + new + line[m.end():]
        for m in re.finditer(r"(?<![-<>])([<>])(?![<>=])", code):
            # Template brackets and -> are not comparisons.
            if ">" in code[m.start():] if m.group() == "<" else "<" in code[:m.start()]:
                continue
            new = m.group() + "="
            yield i, "%s->%s@%d" % (m.group(), new, m.start()), line[:m.start()] + new + line[m.end():]
        for m in re.finditer(r"(?<![\w.])(\d+)(?![\w.])", code):
            n = int(m.group())
            new = str(n + 1 if n != 1 else 0)
            yield i, "%s->%s@%d" % (m.group(), new, m.start()), line[:m.start()] + new + line[m.end():]
        m = re.search(r"\bif \(", code)
        if m:
            depth, j = 0, m.end() - 1
            for j in range(m.end() - 1, len(code)):
                depth += {"(": 1, ")": -1}.get(code[j], 0)
                if depth == 0:
                    break
            if depth == 0:
                yield i, "negate-if", line[:m.end()] + "!(" + line[m.end():j] + ")" + line[j:]
        prev = lines[i - 1].rstrip() if i else ""
        if STATEMENT.match(code) and prev.endswith((";", "{", "}", ":")) \
                and not s.startswith(("return", "break", "continue")):
            yield i, "drop", ""


def picked(seed, path, line, kind, fraction):
    key = "%s\0%s\0%s\0%s" % (seed, path, line.strip(), kind)
    return int(hashlib.sha256(key.encode()).hexdigest()[:8], 16) / 0x100000000 < fraction


def targets(root, labels, exclude):
    """The build targets the labels' tests run."""
    out = []
    for label in labels:
        out += PROGRAMS.get(label, [])
        if not os.path.isdir(os.path.join(root, "tests", label)) or label == "integration":
            continue
        for name in sorted(os.listdir(os.path.join(root, "tests", label))):
            stem, ext = os.path.splitext(name)
            if ext == ".c" or stem.endswith("_test") and not re.search(exclude, stem):
                out.append(stem if ext == ".c" else label + "_" + stem)
    return out


def run(cmd, cwd, timeout):
    try:
        return subprocess.run(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return -1


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--root", default=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    p.add_argument("--build", default=None)
    p.add_argument("--fraction", type=float, default=0.05)
    p.add_argument("--seed", default="1")
    p.add_argument("--list", action="store_true", help="only list the picked mutants")
    p.add_argument("--resume", help="output of an earlier run on the same tree: its verdicts stand")
    p.add_argument("--exclude", default=EXCLUDE,
                   help="tests left out (regex); the map's and matcher's own files need theirs")
    p.add_argument("files", nargs="*")
    a = p.parse_args()
    build = a.build or os.path.join(a.root, "build", "debug")
    todo = []
    for rel in a.files or DEFAULT_FILES:
        path = os.path.join(a.root, rel)
        if not os.path.exists(path):
            continue
        with open(path) as f:
            text = f.read()
        lines = text.split("\n")
        for i, kind, new in mutants_of(rel, text):
            if picked(a.seed, rel, lines[i], kind, a.fraction):
                todo.append((rel, text, i, kind, new))
    killed = survived = broken = 0
    earlier = {}
    if a.resume:
        with open(a.resume) as f:
            for line in f:
                verdict, _, rest = line.partition(" ")
                earlier[rest.strip().split("  | ")[0]] = verdict
    for rel, text, i, kind, new in todo:
        where = "%s:%d %s" % (rel, i + 1, kind)
        if a.list:
            print(where + "  | " + text.split("\n")[i].strip())
            continue
        if where in earlier:
            verdict = earlier[where]
            killed += verdict == "killed"
            survived += verdict == "SURVIVED"
            broken += verdict == "not"
            print(("%-10s " % ("not built" if verdict == "not" else verdict)) + where, flush=True)
            continue
        path = os.path.join(a.root, rel)
        lines = text.split("\n")
        lines[i] = new
        labels = LABELS[rel.split("/")[0]]
        try:
            with open(path, "w") as f:
                f.write("\n".join(lines))
            if run(["cmake", "--build", build, "-j1", "--target"] + targets(a.root, labels, a.exclude),
                   a.root, 900) != 0:
                broken += 1
                print("not built  " + where, flush=True)
                continue
            regex = "|".join("^%s$" % label for label in labels)
            rc = run(["ctest", "--test-dir", build, "-L", regex, "-E", a.exclude, "--timeout", "120",
                      "--stop-on-failure", "-j1"], a.root, 1800)
            if rc == 0:
                survived += 1
                print("SURVIVED   " + where + "  | " + text.split("\n")[i].strip(), flush=True)
            else:
                killed += 1
                print("killed     " + where, flush=True)
        finally:
            with open(path, "w") as f:
                f.write(text)
    if not a.list:
        run(["cmake", "--build", build, "-j1"], a.root, 900)
        total = killed + survived
        print("score: %d of %d built mutants killed (%.1f%%), %d not built"
              % (killed, total, 100.0 * killed / max(total, 1), broken))
    else:
        print("%d mutants" % len(todo))
    return 0


if __name__ == "__main__":
    sys.exit(main())
