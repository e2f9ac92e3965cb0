"""The command behind scripts/bench, which builds everything first."""

from __future__ import annotations

import argparse
import json
import os
import platform
import shutil
import subprocess
import sys
import time
from pathlib import Path

import contestants
import guard
import report
import workloads

ROOT = Path(__file__).resolve().parent.parent


def parse(words: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench",
        description="Builds a release, measures the server side by side with its peers, and "
        "prints medians, spreads and ratios. A whole run also writes docs/figures.md, "
        "docs/performance.md's figures and pictures.")
    parser.add_argument("workload", nargs="*", metavar="WORKLOAD",
                        help="only these: " + ", ".join(workloads.WORKLOADS))
    parser.add_argument("--rounds", type=int, default=5, metavar="N",
                        help="rounds for each contestant (%(default)s)")
    parser.add_argument("--quick", action="store_true", help="short rounds, for a first look")
    parser.add_argument("--realtime", action="store_true",
                        help="run everything under SCHED_RR, so that a busy machine disturbs less")
    parser.add_argument("--guard", action="store_true",
                        help="only check the instruction counts of the commands in process")
    parser.add_argument("--store-guard", action="store_true",
                        help="only store those counts as the expected ones")
    parser.add_argument("--rewrite", action="store_true",
                        help="only write the document again from the last whole run")
    arguments = parser.parse_args(words)
    unknown = set(arguments.workload) - set(workloads.WORKLOADS)
    if unknown:
        parser.error("no such workload: " + ", ".join(sorted(unknown)))
    if arguments.rounds < 1:
        parser.error("at least one round")
    return arguments


def first_line(*command: str) -> str:
    return subprocess.run(command, capture_output=True, text=True).stdout.partition("\n")[0]


def processor() -> str:
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.partition(":")[2].strip()
    return platform.machine()


def load() -> str:
    return " ".join(Path("/proc/loadavg").read_text().split()[:3])


def package_version(name: str) -> str:
    return first_line("dpkg-query", "-W", "-f=${Version}", name)


def facts(arguments: argparse.Namespace, load_before: str, seconds: float) -> list[str]:
    versions = ", ".join(f"{name} {package_version(name)}"
                         for name in ("redis-server", "mosquitto", "nut-server", "libftdi1-2"))
    command = " ".join(["scripts/bench", *sys.argv[1:]])
    commit = first_line("git", "rev-parse", "--short", "HEAD")
    return [f"`{command}`, {time.strftime('%Y-%m-%d')}, commit {commit}",
            f"{processor()}, {os.cpu_count()} processors, Linux {platform.release()}",
            f"{first_line('g++', '--version')}; {versions}",
            f"{arguments.rounds} rounds of every contestant in turn, {seconds / 60:.0f} minutes; "
            f"load average {load_before} before and {load()} after",
            f"every program alike runs {priority()}",
            "figures are medians of the rounds, in brackets the lowest and the highest; a ratio is "
            "the median of the ratios within each round"]


def priority() -> str:
    if os.sched_getscheduler(0) == os.SCHED_RR:
        return "under SCHED_RR, so that other work on the machine disturbs less"
    return f"at nice {os.nice(0)}"


def write_document(results: report.Results, lines: list[str]) -> None:
    docs = ROOT / "docs"
    document = docs / "performance.md"
    images = docs / "images"
    images.mkdir(exist_ok=True)
    for name, picture in report.pictures(results).items():
        (images / name).write_text(picture)
    document.write_text(report.insert(document.read_text(), report.headlines(results, lines)))
    (docs / "figures.md").write_text(report.all_figures(results, lines))


def with_numbers(results: dict[str, dict[str, dict[str, report.Rounds]]]) -> report.Results:
    return {workload: {series: {int(x): rounds for x, rounds in points.items()}
                       for series, points in by_series.items()}
            for workload, by_series in results.items()}


def run(arguments: argparse.Namespace, binaries: Path, store: Path) -> None:
    bench = workloads.Bench(binaries, arguments.rounds, arguments.quick)
    results = {}
    load_before = load()
    began = time.monotonic()
    for name in arguments.workload or workloads.WORKLOADS:
        print(f"measuring {name} ...", file=sys.stderr, flush=True)
        results[name] = getattr(bench, name)()
    print(report.text(results))
    lines = facts(arguments, load_before, time.monotonic() - began)
    print("\n" + "\n".join(lines))
    if not arguments.workload and not arguments.quick:
        store.write_text(json.dumps({"facts": lines, "results": results}))
        write_document(results, lines)


class HighPriority:
    """Keeps other work on the machine out of the figures where the system lets us. The nice value
    counts only within the kernel's automatic group of the terminal, so that is raised as well."""

    GROUP = Path("/proc/self/autogroup")

    def __init__(self, realtime: bool) -> None:
        self.realtime = realtime
        self.before: str | None = None

    def __enter__(self) -> None:
        if self.realtime:
            os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
            return
        try:
            os.nice(-20)
            self.before = self.GROUP.read_text().split()[-1]
            self.GROUP.write_text("-20")
        except OSError:
            pass

    def __exit__(self, *ignored: object) -> None:
        if self.before is not None:
            self.GROUP.write_text(self.before)


def main() -> None:
    arguments = parse(sys.argv[1:])
    os.chdir(ROOT)
    build = ROOT / "build" / "release"
    binaries = build / "bin"
    store = build / "bench-results.json"
    if arguments.guard:
        sys.exit(0 if guard.check(binaries / "command-loop") else 1)
    if arguments.store_guard:
        guard.store(binaries / "command-loop")
        return
    if arguments.rewrite:
        last = json.loads(store.read_text())
        write_document(with_numbers(last["results"]), last["facts"])
        return
    missing = [name for name in ("redis-server", "mosquitto") if not shutil.which(name)]
    if missing:
        sys.exit("missing: " + ", ".join(missing))
    contestants.raise_limits()
    with HighPriority(arguments.realtime):
        run(arguments, binaries, store)


if __name__ == "__main__":
    main()
