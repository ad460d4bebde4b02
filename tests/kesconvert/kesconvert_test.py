#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs kesconvert on files, good and bad, in a temporary folder.

Cases that need only a shell are in works.txt, fails.txt and formats.txt. KESCONVERT is the command that runs the
program, with an absolute path; GTEST_FAIL_FAST=1 stops at the first failure, as in the other tests.
"""
import os
import pathlib
import random
import re
import subprocess
import tempfile
import unittest

CASES = pathlib.Path(__file__).resolve().parent
ROOT = CASES.parent.parent
FUNCTIONS = (CASES / "functions.sh").read_text()
ENVIRONMENT = {**os.environ, "K": os.environ["KESCONVERT"], "SEEDS": str(CASES.parent / "fuzz/corpus/kesconvert")}


def cases_of(file, between):
    """Splits a file of cases at matches of the expression, without its comments."""
    return re.split(between, re.sub("^#.*\n", "", (CASES / file).read_text(), flags=re.M).strip())


class Kesconvert(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kesconvert-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        (self.folder / "noise").write_bytes(random.Random(1).randbytes(90000))

    def run_shell(self, command):
        """Runs a command in the folder, where $K is the program; returns its exit code and its standard error."""
        with tempfile.TemporaryFile("w+", errors="replace") as says:  # a pipe's end would wait for what goes on behind
            code = subprocess.run(["sh", "-c", f"{FUNCTIONS}\n{command}"], cwd=self.folder, env=ENVIRONMENT,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=says,
                                  timeout=60).returncode
            says.seek(0)
            return code, says.read()

    def succeed(self, file):
        """Runs each paragraph of a file."""
        for command in cases_of(file, "\n\n+"):
            with self.subTest(command):
                code, says = self.run_shell(f"{{ {command}\n}} >&2")
                self.assertEqual(code, 0, says)

    def files(self):
        """Every file in the folder and what is in it."""
        return {path: path.is_file() and path.read_bytes() for path in self.folder.rglob("*")}

    def test_works(self):
        self.succeed("inputs.txt")
        self.succeed("works.txt")

    def test_documented_commands(self):
        """Every command of the README, the manual page and --help."""
        self.succeed("inputs.txt")
        self.assertEqual(self.run_shell("""cp six.wav film.wav && cp six.wav surround.wav && $K six.wav movie.flac &&
            mkdir stereo && cp noise surround.raw && rm old.flac && $K noise take.wav --raw 48000:4:s24"""), (0, ""))
        texts = [(ROOT / name).read_text() for name in ("README.md", "tools/kesconvert.1")]
        texts.append(self.run_shell("$K --help >&2")[1])
        commands = re.findall(r"^(?:\.Dl)? *((?:arecord .*\| )?kesconvert .+)$", "\n".join(texts), re.M)
        commands += re.findall(r"`(kesconvert [^`]*--[^`]*)`", texts[0])
        self.assertGreater(len(commands), 14)
        for command in commands:
            with self.subTest(command):
                functions = 'kesconvert() { $K "$@"; }\narecord() { head -c 8000 noise; }\n'
                code, says = self.run_shell(functions + command)
                self.assertEqual(code, 0, says)

    def test_formats(self):
        """Every row of the README's table of file formats."""
        self.succeed("inputs.txt")
        table = (ROOT / "README.md").read_text().split("| file | read as |")[1].split("\n\n")[0]
        rows = re.findall(r"^\| ([^|]*) \|", table, flags=re.M)
        cases = dict(case.split(" => ", 1) for case in cases_of("formats.txt", "\n\n+"))
        self.assertEqual(rows, list(cases))
        for row, command in cases.items():
            with self.subTest(row):
                code, says = self.run_shell(f"{{ {command}\n}} >&2")
                self.assertEqual(code, 0, says)

    def test_resamples_in_time(self):
        """Length, place in time and level are exact, for each kind of samples and each variant of the resampler."""
        for in_rate, out_rate, sample_bytes, channels, frames, impulse, options, variant in (
                (44100, 48000, 2, 2, 44100, 14700, "", "plain"),
                (48000, 44100, 3, 2, 48001, 48000, "", "plain"),
                (48000, 16000, 4, 6, 5000, 0, "--block 7", "multichannel"),
                (44100, 48001, 2, 1, 3, 1, "--block 1", "multichannel"),
                (8000, 768000, 3, 3, 100, 50, "--block 10", "multichannel"),
                (96000, 4000, 2, 8, 1, 0, "", "multichannel"),
                (48000, 44100, 2, 2, 0, 0, "", "plain")):
            command = f"$K - - --raw {in_rate}:{channels}:s{8 * sample_bytes} --rate {out_rate} {options} <in >out"
            with self.subTest(command):
                half = bytes(sample_bytes - 1) + b"\x40"  # of full scale
                rows = [bytes(sample_bytes) * channels] * frames
                rows[impulse:impulse + 1] = [half * channels] * (frames > 0)
                (self.folder / "in").write_bytes(b"".join(rows))
                code, says = self.run_shell(command)
                self.assertEqual(code, 0, says)
                self.assertIn(f"by the {variant} resampler", says)

                out = (self.folder / "out").read_bytes()
                frame_bytes = channels * sample_bytes
                self.assertEqual(len(out), -(-frames * out_rate // in_rate) * frame_bytes)
                for first in range(0, frame_bytes if frames else 0, sample_bytes):
                    samples = [int.from_bytes(out[at:at + sample_bytes], "little", signed=True)
                               for at in range(first, len(out), frame_bytes)]
                    peak, ratio = max(samples), out_rate / in_rate
                    self.assertAlmostEqual(samples.index(peak), impulse * ratio, delta=0.5)
                    level = peak / min(ratio, 1) / int.from_bytes(half, "little")
                    self.assertAlmostEqual(level, 1, delta=1 / 8)

    def test_says_what_is_wrong_and_leaves_nothing_behind(self):
        self.succeed("inputs.txt")
        cases = cases_of("fails.txt", "\n+")
        cases += [f"1 $K cut/{path.name} old.wav => {path.name}" for path in (self.folder / "cut").iterdir()]
        for name in "two.wav", "two.flac", "two.aiff", "two.au", "two.w64":  # cut at every byte
            cases += [f"1 head -c {size} {name} | $K - old.wav => "
                      for size in range((self.folder / name).stat().st_size)]
        before = self.files()
        for case in cases:
            with self.subTest(case):
                code, required, command, message = re.fullmatch(r"([012]) (?:\[(.*)\] )?(.*) => (.*)", case).groups()
                if required and self.run_shell(required)[0] != 0:
                    continue
                done, says = self.run_shell(command)
                self.assertEqual(done, int(code), says)
                self.assertRegex(says, message if code == "0" else rf"\Akesconvert: .*{message}.*\n\Z")
                after = self.files()
                changed, before = after != before, after
                self.assertFalse(changed, "files have changed")


if __name__ == "__main__":
    unittest.main(failfast=os.environ.get("GTEST_FAIL_FAST") == "1")
