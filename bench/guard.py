"""Compares what a command costs in process, counted by callgrind, with the stored figures.

The C library is left out: it picks its memory and string functions by the processor. The calls
into it are counted instead."""

from __future__ import annotations

import json
import re
import subprocess
import tempfile
from pathlib import Path

EXPECTED = Path(__file__).with_name("expected-costs.json")
COMMANDS = (("simulated", "R50"), ("simulated", "W51"), ("simulated", "A00"), ("simulated", "L00"),
            ("board", "R0D0"), ("board", "W011"), ("board", "A000"))
COUNT = 1000
MARGIN = 0.10


def profile(binary: Path, back_end: str, command: str) -> dict[str, int]:
    with tempfile.TemporaryDirectory() as directory:
        output = Path(directory) / "callgrind.out"
        subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={output}",
             "--collect-atstart=no", "--toggle-collect=measuredLoop", "--compress-strings=no",
             "--compress-pos=no", str(binary), back_end, command, str(COUNT)],
            check=True, capture_output=True)
        return costs(output.read_text())


def is_c_library(name: str) -> bool:
    return re.search(r"/(libc\.so|libc-|ld-linux|libpthread)", name) is not None


def costs(text: str) -> dict[str, int]:
    """Instructions outside the C library and calls into it, for one command."""
    instructions = calls = 0
    outside = callee_inside = False
    skip = False
    for line in text.splitlines():
        key, _, value = line.partition("=")
        if key == "ob":
            outside = not is_c_library(value)
            callee_inside = not outside
        elif key == "fn":
            callee_inside = not outside
        elif key == "cob":
            callee_inside = is_c_library(value)
        elif key == "calls":
            if outside and callee_inside:
                calls += int(value.split()[0])
            # The next line is the inclusive cost of the calls.
            skip = True
            callee_inside = not outside
        elif re.match(r"[0-9]+ [0-9]+$", line):
            if outside and not skip:
                instructions += int(line.split()[1])
            skip = False
    return {"instructions": round(instructions / COUNT), "library calls": round(calls / COUNT)}


def measure(binary: Path) -> dict[str, dict[str, int]]:
    return {f"{back_end} {command}": profile(binary, back_end, command)
            for back_end, command in COMMANDS}


def check(binary: Path) -> bool:
    """Prints a line for each command; returns whether each costs what it should. One that became
    much cheaper fails too: its figure is out of date, or nothing was measured."""
    expected = json.loads(EXPECTED.read_text())
    good = True
    for name, found in measure(binary).items():
        for kind, value in found.items():
            verdict = "ok"
            if value > expected[name][kind] * (1 + MARGIN):
                verdict = "too many"
            elif value < expected[name][kind] * (1 - MARGIN):
                verdict = "far fewer: store them with --store-guard"
            good = good and verdict == "ok"
            print(f"{name:15} {kind:14} {value:6} of {expected[name][kind]:6}  {verdict}")
    return good


def store(binary: Path) -> None:
    EXPECTED.write_text(json.dumps(measure(binary), indent=2) + "\n")
