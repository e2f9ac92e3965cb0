"""Runs the server on the virtual board among clients and losses; see scripts/soak --help."""

from __future__ import annotations

import argparse
import os
import random
import subprocess
import sys
import tempfile
import threading
import time
from typing import Any

import clients
import machine
import picture
from board import VirtualBoard, eventually, free_port
from world import World

# What the library keeps open for each connect with a restart of the board.
DESCRIPTORS_A_RESTART = 3

Figures = dict[str, int]
Samples = list[dict[str, Any]]


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/soak",
        description="Runs the server on the virtual board with clients that come, go, reset, "
        "stall, listen and write, while the board is pulled out and put back at random. Prints "
        "what happened and draws it. Fails on a wrong answer, on descriptors or threads left "
        "behind, and on anything that a sanitizer reports.")
    parser.add_argument("minutes", type=float, metavar="MINUTES", help="how long")
    parser.add_argument("--preset", metavar="NAME", default="release",
                        help="the build to run (default release; tsan looks for data races)")
    parser.add_argument("--seed", type=int, metavar="N",
                        default=random.SystemRandom().randrange(10**9),
                        help="repeat the random choices of an earlier run")
    parser.add_argument("--picture", metavar="FILE",
                        help="where to draw (default build/NAME/soak.svg)")
    return parser.parse_args()


def build(preset: str) -> str:
    """Brings the programs up to date and returns the directory of their build."""
    script = '. scripts/lib/build.sh && build_programs "$0" GpioServer virtual-board virtual-usb'
    if subprocess.run(["bash", "-c", script, preset], check=False).returncode != 0:
        sys.exit("the programs cannot be built")
    return f"build/{preset}"


def sample(server: machine.Server, world: World, begin: float, samples: Samples) -> None:
    figures: dict[str, Any] = dict(server.figures())
    with server.changed:
        figures["explained"] = DESCRIPTORS_A_RESTART * server.resets
    figures.update(time=time.monotonic() - begin, counts=dict(world.counts))
    samples.append(figures)


def run(arguments: argparse.Namespace, world: World, server: machine.Server,
        board: VirtualBoard, samples: Samples) -> None:
    begin = time.monotonic()
    end = begin + arguments.minutes * 60
    interval = max(1.0, arguments.minutes * 60 / 600)
    driver = machine.BoardDriver(world, board, server)
    threads = clients.all_clients(world) + [driver]
    for thread in threads:
        thread.start()
    next_line = 0.0
    while time.monotonic() < end and server.is_running():
        sample(server, world, begin, samples)
        if samples[-1]["time"] >= next_line:
            print_line(samples[-1])
            next_line += max(5.0, arguments.minutes * 60 / 30)
        time.sleep(interval)
    world.stop.set()
    for thread in threads:
        thread.join(clients.PATIENCE + 30)
        if thread.is_alive():
            world.finding(f"{thread.name} does not end")
    if not server.is_running():
        world.finding(f"the server ended with status {server.process.returncode}")
    elif not server.wait_until_ready(driver.rounds, threading.Event()):
        world.finding("the board was not ready at the end")


def print_line(figures: dict[str, Any]) -> None:
    counts = figures["counts"]
    print(f"{figures['time']:7.0f} s  {counts.get('commands', 0):8d} commands  "
          f"{counts.get('changes received', 0):8d} changes  "
          f"{counts.get('rounds of loss', 0):4d} losses  "
          f"{figures['descriptors']:4d} descriptors  {figures['threads']:3d} threads  "
          f"{figures['resident']:7d} kB resident", flush=True)


def check_what_is_left(world: World, server: machine.Server, baseline: Figures) -> Figures:
    """Once everybody has left and the board is ready again, exactly what the library keeps must be
    there besides the baseline."""
    figures = dict(baseline)

    def is_clean() -> bool:
        if not server.is_running():
            return True
        figures.update(server.figures())
        surplus = (figures["descriptors"] - baseline["descriptors"]
                   - DESCRIPTORS_A_RESTART * server.resets)
        return surplus == 0 and figures["threads"] <= baseline["threads"]

    if not eventually(is_clean, limit=120, pause=0.5):
        world.finding(f"left behind: {figures}, at first {baseline}, "
                      f"{server.resets} connects with a restart")
    return figures


def rate(samples: Samples, name: str) -> list[float]:
    result = [0.0]
    for before, after in zip(samples, samples[1:]):
        number = after["counts"].get(name, 0) - before["counts"].get(name, 0)
        result.append(number / (after["time"] - before["time"]))
    return result


def loss_times(samples: Samples) -> list[float]:
    return [after["time"] for before, after in zip(samples, samples[1:])
            if after["counts"].get("rounds of loss", 0) > before["counts"].get("rounds of loss", 0)]


def draw(arguments: argparse.Namespace, world: World, samples: Samples,
         baseline: Figures) -> None:
    base = baseline["descriptors"]
    panels: list[tuple[str, str, list[picture.Series]]] = [
        ("Executed commands", "1/s", [("commands", rate(samples, "commands"))]),
        ("Changes", "1/s", [("received", rate(samples, "changes received")),
                            ("at the board", rate(samples, "changes at the board"))]),
        ("Descriptors", "count", [("open", [one["descriptors"] for one in samples]),
                                  ("without clients", [base + one["explained"]
                                                       for one in samples])]),
        ("Threads", "count", [("threads", [one["threads"] for one in samples])]),
        ("Memory", "MB", [("resident", [one["resident"] / 1024 for one in samples]),
                          ("proportional", [one["proportional"] / 1024 for one in samples])]),
    ]
    os.makedirs(os.path.dirname(os.path.abspath(arguments.picture)), exist_ok=True)
    picture.draw(arguments.picture, f"Soak of {arguments.minutes:g} min, seed {world.seed}",
                 [one["time"] for one in samples], panels, loss_times(samples))


def report(world: World, server: machine.Server, baseline: Figures, last: Figures,
           samples: Samples) -> None:
    for name in ("connections", "connections reset", "stalls", "visits ended by a loss",
                 "commands", "changes at the board", "changes received", "rounds of loss",
                 "wrong answers"):
        print(f"{name + ':':26}{world.counts[name]}")
    print(f"{'connects with a restart:':26}{server.resets}")
    for name, unit in (("descriptors", ""), ("threads", ""), ("resident", " kB"),
                       ("proportional", " kB")):
        print(f"{name + ':':26}{baseline[name]}{unit} at first, at most "
              f"{max(one[name] for one in samples)}{unit}, {last[name]}{unit} at the end")
    for line in server.strange[:200]:
        print(f"SERVER: {line}")


def main() -> None:
    arguments = parse_arguments()
    directory_of_build = build(arguments.preset)
    arguments.picture = arguments.picture or f"{directory_of_build}/soak.svg"
    world = World(arguments.seed, free_port())
    print(f"seed {world.seed}", flush=True)
    with tempfile.TemporaryDirectory(prefix="soak-") as directory:
        binaries = f"{directory_of_build}/bin"
        board = VirtualBoard(binaries, directory)
        board.command("firmware 2 5")
        board.command("capacity 4294967295")
        server = machine.Server(binaries, board.environment, world.port)
        samples: Samples = []
        try:
            if not server.wait_until_ready(1, world.stop):
                sys.exit("the board was never ready")
            time.sleep(2)
            baseline = server.figures()
            run(arguments, world, server, board, samples)
            last = check_what_is_left(world, server, baseline)
        finally:
            server.end()
            board.end()
    draw(arguments, world, samples, baseline)
    report(world, server, baseline, last, samples)
    sys.exit(1 if world.findings or server.strange else 0)


if __name__ == "__main__":
    main()
