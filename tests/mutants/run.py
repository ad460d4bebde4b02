#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Plants the faults of faults.txt one by one in a copy of the sources, and demands that a test turns red for each.

Usage: run.py [PATTERN]    those in whose build, file and description it is found, a regular expression; without it,
                           all

A fault that no test finds, whose text is not in its file exactly once, or that does not compile is named at the end,
and the exit code is 1. The copies and their builds stay in build/mutants/, for the next run to be quick.
"""
import concurrent.futures
import os
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILDS = {  # by the name that a section of the list begins with
    "x86-64": "-DCMAKE_CXX_FLAGS=-march=x86-64",
    "x86-64-v3": "-DCMAKE_CXX_FLAGS=-march=x86-64-v3 -DKESAUDIO_BUILD_TOOLS=OFF",
    "debug": "-DCMAKE_CXX_FLAGS_DEBUG=-g -DKESAUDIO_BUILD_TOOLS=OFF",
    "aarch64": "--toolchain cmake/aarch64-linux.cmake -DKESAUDIO_BUILD_TOOLS=OFF",
    "asan": "--preset asan -DKESAUDIO_LEVELS=x86-64-v3 -DKESAUDIO_FUZZ_SECONDS=60",  # whose fuzz programs are tests
}
OPTIONS = ("-G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O1 -DCMAKE_C_FLAGS_DEBUG=-O1 -DKESAUDIO_LEVELS= "
           "-DKESAUDIO_BUILD_BENCH=OFF -DKESAUDIO_INSTALL=OFF")


def read_list(pattern):
    """The faults by build: (file, description, text there, text put there, tests)."""
    faults, texts, tests = {}, {}, None
    for block in re.split(r"\n{2,}", (ROOT / "tests/mutants/faults.txt").read_text().strip()):
        lines = [line for line in block.split("\n") if not line.startswith("#")]
        if lines and lines[0].startswith("== "):
            build, tests = re.fullmatch(r"== (\S+): (.+)", lines.pop(0)).groups()
        if not lines:
            continue
        if len(lines) > 1:
            texts[lines[0]] = ["\n".join(line[2:] for line in lines if line.startswith(sign)) for sign in "-+"]
        file, description = lines[0].split(": ", 1)
        if re.search(pattern, f"{build} {lines[0]}"):
            faults.setdefault(build, []).append((file, description, *texts[lines[0]], tests))
    return faults


class Copy:
    """The sources of one build, and the build."""

    def __init__(self, name):
        self.folder = ROOT / "build/mutants" / name
        self.source = self.folder / "source"
        names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, capture_output=True,
                               text=True, check=True).stdout.split("\n")
        names = {name for name in names if name and (ROOT / name).is_file()}
        for old in list(self.source.rglob("*")) if self.source.exists() else []:
            if old.is_file() and str(old.relative_to(self.source)) not in names:
                old.unlink()
        for file in names:  # what stays the same is not compiled again
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
        if self.run("cmake", "--build", "../build", "-j2").returncode != 0:
            return "does not compile"
        pattern = "^(" + "|".join(tests.split()) + ")$"
        result = self.run("ctest", "--test-dir", "../build", "-R", pattern, "--no-tests=error", "--stop-on-failure",
                          "--timeout", "200", "--output-on-failure")
        if result.returncode == 0:
            return "green"
        failed = re.findall(r"^\s*\d+ - (\S+) \((?!Not Run)", result.stdout, re.M)
        return "red: " + " ".join(failed) if failed else "no tests were run"


def try_build(name, faults):
    """Names the faults of a build that went unnoticed."""
    copy, bad = Copy(name), []
    for tests in sorted({fault[-1] for fault in faults}):
        if (verdict := copy.verdict(tests)) != "green":
            return [f"{name}: without any fault: {verdict}; see {copy.folder}/log"]
    for file, description, old, new, tests in faults:
        target = copy.source / file
        text = target.read_text()
        if text.count(old) != 1 or not old:
            verdict = f"is there {text.count(old)} times"
        else:
            try:
                target.write_text(text.replace(old, new))
                verdict = copy.verdict(tests)
            finally:
                target.write_text(text)
        print(f"{verdict:20} {name:9} {file}: {description}", flush=True)
        if not verdict.startswith("red"):
            bad.append(f"{name}: {file}: {description}: {verdict}")
    return bad


def main():
    pattern = sys.argv[1] if len(sys.argv) > 1 else ""
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
            os._exit(130)  # the copies are set right by the next run
    print(f"{sum(map(len, faults.values()))} faults, {len(bad)} not found", *bad, sep="\n")
    return 1 if bad or not faults else 0


sys.exit(main())
