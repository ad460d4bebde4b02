#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Plants the faults of faults.txt one by one in a copy of the sources; a test must fail for each.

Usage: run.py [PATTERN]    all faults, or those whose build, place and description match a regular expression
       run.py --places     only checks that each fault still has its place in the sources

Faults that no test finds, whose text does not stand in their function exactly once, or that do not compile are listed
at the end, and the exit code is 1. The copies and their builds stay in build/mutants/ to make the next run quick.
"""
import concurrent.futures
import os
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILDS = {  # by the name in a section's heading
    "x86-64": "-DCMAKE_CXX_FLAGS=-march=x86-64",
    "x86-64-v3": "-DCMAKE_CXX_FLAGS=-march=x86-64-v3 -DKESAUDIO_BUILD_TOOLS=OFF",
    "debug": "-DCMAKE_CXX_FLAGS_DEBUG=-g -DKESAUDIO_BUILD_TOOLS=OFF",
    "aarch64": "--toolchain cmake/aarch64-linux.cmake -DKESAUDIO_BUILD_TOOLS=OFF",
}
OPTIONS = ("-G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O1 -DCMAKE_C_FLAGS_DEBUG=-O1 -DKESAUDIO_LEVELS= "
           "-DKESAUDIO_BUILD_BENCH=OFF -DKESAUDIO_INSTALL=OFF")

TARGETS = {"prove": "prove", "quality": "palix_test", "kesconvert": "kesconvert", "binary": "golden_test",
           "abi": "kesaudio"}


def read_list(pattern):
    """The faults by build: (file, function, description, text there, text put there, test)."""
    faults, build, test, place = {}, None, None, None
    for line in (ROOT / "tests/mutants/faults.txt").read_text().splitlines():
        if line.startswith("== "):
            build, test = re.fullmatch(r"== (\S+): (.+)", line).groups()
        elif line.startswith("  "):
            old, new = re.fullmatch(r"  (.+) =>(.*)", line).groups()
            if re.search(pattern, f"{build} {' '.join(place)}"):
                faults.setdefault(build, []).append((*place, old, new.strip(), test))
        elif line and not line.startswith("#"):
            place = re.fullmatch(r"(\S+) (\S+): (.+)", line).groups()
    return faults


def end_of_definition(text, at):
    """End of the definition whose name is at `at`: its closing brace, or a semicolon before any brace."""
    depth = 0
    for match in re.compile(r"[(){};]").finditer(text, at):
        sign = match.group()
        depth += (sign in "({") - (sign in ")}")
        if depth < 0 or (depth == 0 and sign in "};"):
            return match.end()
    return len(text)


def planted(text, name, old, new):
    """The text with the fault, or None unless the definitions of that name hold the old text exactly once."""
    ends = {at: end_of_definition(text, at) for at in
            (match.start() for match in re.finditer(rf"\b{re.escape(name)}\b", text))}
    places = {at + match.start() for at, end in ends.items() for match in re.finditer(re.escape(old), text[at:end])}
    if len(places) != 1:
        return None
    at = places.pop()
    return text[:at] + new + text[at + len(old):]


class Copy:
    """A copy of the sources, and its build."""

    def __init__(self, name):
        self.folder = ROOT / "build/mutants" / name
        self.source = self.folder / "source"
        names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, capture_output=True,
                               text=True, check=True).stdout.split("\n")
        names = {name for name in names if name and (ROOT / name).is_file()}
        for old in list(self.source.rglob("*")) if self.source.exists() else []:
            if old.is_file() and str(old.relative_to(self.source)) not in names:
                old.unlink()
        for file in names:  # unchanged files keep their time, and are not compiled again
            to, content = self.source / file, (ROOT / file).read_bytes()
            if not to.exists() or to.read_bytes() != content:
                to.parent.mkdir(parents=True, exist_ok=True)
                to.write_bytes(content)
                to.chmod((ROOT / file).stat().st_mode)
        if name == "aarch64":
            link = self.source / "build/aarch64-root"
            link.parent.mkdir(exist_ok=True)
            link.is_symlink() or link.symlink_to(ROOT / "build/aarch64-root")
        self.run("cmake", *shlex.split(OPTIONS), *shlex.split(BUILDS[name]), "-S", ".", "-B", "../build")

    def run(self, *command):
        result = subprocess.run(["nice", *command], cwd=self.source, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True, errors="replace", env={**os.environ, "GTEST_FAIL_FAST": "1"})
        (self.folder / "log").write_text(result.stdout)
        return result

    def verdict(self, tests):
        """Whether it compiles, and the tests that fail."""
        targets = [TARGETS.get(test, f"{test}_test") for test in tests.split()]
        if self.run("cmake", "--build", "../build", "-j2", "--target", *targets).returncode != 0:
            return "does not compile"
        pattern = "^(" + "|".join(tests.split()) + ")$"
        result = self.run("ctest", "--test-dir", "../build", "-R", pattern, "--no-tests=error", "--stop-on-failure",
                          "--timeout", "200", "--output-on-failure")
        if result.returncode == 0:
            return "green"
        failed = re.findall(r"^\s*\d+ - (\S+) \((?!Not Run)", result.stdout, re.M)
        return "red: " + " ".join(failed) if failed else "no tests were run"


def try_build(name, faults):
    """Tries the faults of a build. Returns those that no test found."""
    copy, bad = Copy(name), []
    for tests in sorted({fault[-1] for fault in faults}):
        if (verdict := copy.verdict(tests)) != "green":
            return [f"{name}: without any fault: {verdict}; see {copy.folder}/log"]
    for file, name_there, description, old, new, tests in faults:
        target = copy.source / file
        text = target.read_text() if target.exists() else ""
        faulty = planted(text, name_there, old, new)
        if faulty is None:
            verdict = "has no such place, or several"
        else:
            try:
                target.write_text(faulty)
                verdict = copy.verdict(tests)
            finally:
                target.write_text(text)
        print(f"{verdict:20} {name:9} {file} {name_there}: {description}", flush=True)
        if not verdict.startswith("red"):
            bad.append(f"{name}: {file} {name_there}: {description}: {verdict}")
    return bad


def check_places():
    lost = [f"{file} {name}: {description}" for fault in read_list("").values()
            for file, name, description, old, new, _ in fault
            if not (ROOT / file).exists() or planted((ROOT / file).read_text(), name, old, new) is None]
    sys.exit("\n".join(["faults without a place, or with several:", *lost]) if lost else 0)


def main():
    pattern = sys.argv[1] if len(sys.argv) > 1 else ""
    if pattern == "--places":
        check_places()
    try:
        faults = read_list(pattern)
    except re.error as error:
        sys.exit(f"{pattern} is no regular expression: {error}")
    if not faults:
        sys.exit(f"no fault's file and description hold {pattern}; see tests/mutants/faults.txt")
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        try:
            bad = sum(pool.map(try_build, faults.keys(), faults.values()), [])
        except KeyboardInterrupt:
            os._exit(130)  # the next run restores the copies
    print(f"{sum(map(len, faults.values()))} faults, {len(bad)} not found", *bad, sep="\n")
    return 1 if bad or not faults else 0


sys.exit(main())
