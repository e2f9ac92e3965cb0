"""The measurements. Each returns {series: {x: [one dict of figures for each round]}}."""

from __future__ import annotations

import contextlib
import json
import subprocess
import time
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

import footprint
from board import memory, processor_seconds
from contestants import (CHANGE, REDIS_MESSAGE, REDIS_PUBLISH, REDIS_SUBSCRIBED, Contestant,
                         Programs, free_port, hexed, mqtt_connect, mqtt_publish, mqtt_subscribe)
from report import Rounds
from support import Process

Figures = dict[str, float]
#: By contestant and size.
Series = dict[str, dict[int, Rounds]]

RATE_CLIENTS = (1, 2, 8, 64, 256, 512, 1000, 2000)

# Where a thread happens to run moves a rate by a tenth, so its rounds are many and short.
RATE_REPEATS = 4
MEMORY_CLIENTS = (100, 500, 1000, 2000)
LISTENERS = (1, 3, 10, 30, 100, 300, 1000)


class Bench:
    def __init__(self, binaries: Path, rounds: int, quick: bool) -> None:
        self.binaries = Path(binaries)
        self.rounds = rounds
        self.quick = quick
        self.milliseconds = 200 if quick else 700

    def load(self, *words: object) -> Figures:
        command = [str(self.binaries / "load-generator"), *[str(word) for word in words]]
        return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE,
                                         text=True).stdout)

    def alternate(self, contestants: dict[str, Any], points: Sequence[int],
                  measure: Callable[[str, Any, int], Figures], repeats: int = 1) -> Series:
        """Calls measure(name, contestant, x) for all, in turn, round after round. Every second
        round goes backwards, so that nobody always follows the same other."""
        results: Series = {name: {x: [] for x in points} for name in contestants}
        for number in range(self.rounds * repeats):
            order = list(contestants.items())
            for x in points:
                for name, contestant in order if number % 2 == 0 else reversed(order):
                    results[name][x].append(measure(name, contestant, x))
        return results

    def rate(self, contestant: Contestant, clients: int, *more: object, share: int = 1) -> Figures:
        return self.load("rate", "--port", contestant["port"], "--request", contestant["request"],
                         "--milliseconds", self.milliseconds // share, "--clients", clients, *more)

    def latency(self) -> Series:
        with Programs(self.binaries) as programs:
            contestants = {"server": programs.server(), "bare": programs.bare(),
                           "bare, one write": programs.bare(writes=1), "redis": programs.redis(),
                           "upsd": programs.upsd()}
            return self.alternate(contestants, [1], lambda _name, contestant, clients: self.rate(
                contestant, clients, "--blocking"))

    def rates(self) -> Series:
        with Programs(self.binaries) as programs:
            contestants = {"server": programs.server(), "bare": programs.bare(),
                           "bare, one write": programs.bare(writes=1), "redis": programs.redis()}
            points = (1, 64) if self.quick else RATE_CLIENTS
            return self.alternate(contestants, points, lambda _name, contestant, clients: self.rate(
                contestant, clients, share=2), RATE_REPEATS)

    def connects(self) -> Series:
        with Programs(self.binaries) as programs:
            contestants = {"server": programs.server(), "bare": programs.bare(),
                           "server, no log": programs.server("/dev/null"),
                           "redis": programs.redis()}
            return self.alternate(contestants, [1], lambda _name, contestant, _one: self.load(
                "connects", "--port", contestant["port"], "--request", contestant["request"],
                "--milliseconds", self.milliseconds))

    def memory(self) -> Series:
        """Kilobytes for each idle client, of a server that has just started."""
        starters = {"server": Programs.server, "bare": Programs.bare}

        def measure(_name: str, starter: Callable[[Programs], Contestant], clients: int) -> Figures:
            with Programs(self.binaries) as programs:
                contestant = starter(programs)
                process = contestant["process"].pid
                self.load("rate", "--port", contestant["port"], "--request", contestant["request"],
                          "--milliseconds", 20)
                before = memory(process)["Rss"]
                with contextlib.ExitStack() as held:
                    for _ in range(clients):
                        held.enter_context(footprint.connect(contestant["port"]))
                    grown = memory(process)["Rss"] - before
                return {"kilobytes": grown / clients}

        return self.alternate(starters, (100,) if self.quick else MEMORY_CLIENTS, measure)

    def broadcast(self) -> Series:
        with Programs(self.binaries) as programs:
            redis = programs.redis()
            mosquitto = programs.mosquitto()
            line = ["--hello", hexed("L000") + ":3", "--message-bytes", len(CHANGE) + 1]
            bare_line = ["--hello", hexed("L000") + ":4", "--message-bytes", len(CHANGE) + 1]
            to_redis = ["--hello", f"{hexed('SUBSCRIBE c')}0d0a:{len(REDIS_SUBSCRIBED)}",
                        "--message-bytes", len(REDIS_MESSAGE)]
            to_mosquitto = ["--hello", mqtt_connect(""), "--hello", mqtt_subscribe(),
                            "--message-bytes", len(CHANGE) + 5]
            server = programs.board_server()
            bare = programs.bare_board("broadcast")
            single = programs.bare_board("broadcast", "--writes", 1)
            silent = programs.board_server("/dev/null")
            redis_bridge = programs.bridge(redis["port"], REDIS_PUBLISH)
            mosquitto_bridge = programs.bridge(mosquitto["port"], mqtt_publish(),
                                               [mqtt_connect("bridge")])
            contestants = {
                "server": [server, *line, *from_board(server)],
                "bare": [bare, *bare_line, *from_board(bare)],
                "redis": [redis, *to_redis, *from_board(redis_bridge)],
                "mosquitto": [mosquitto, *to_mosquitto, *from_board(mosquitto_bridge)],
                "bare, one write": [single, *bare_line, *from_board(single)],
                "server, no log": [silent, *line, *from_board(silent)],
                "redis, no board": [redis, *to_redis, "--trigger-port", redis["port"],
                                    "--trigger", REDIS_PUBLISH],
                "mosquitto, no board": [mosquitto, *to_mosquitto, "--trigger-port",
                                        mosquitto["port"], "--trigger-hello", mqtt_connect("pub"),
                                        "--trigger", mqtt_publish()],
            }

            def measure(_name: str, contestant: Any, listeners: int) -> Figures:
                changes = 20 if self.quick else 60 if listeners > 100 else 300
                target, *words = contestant
                return self.load("broadcast", "--port", target["port"], "--listeners", listeners,
                                 "--changes", changes, *words)

            return self.alternate(contestants, (1, 100) if self.quick else LISTENERS, measure)

    def writes(self) -> Series:
        with Programs(self.binaries) as programs:
            server = programs.board_server()
            bare_server = programs.bare_board("serve")
            board = programs.board()
            work = [self.binaries / "bare-board", "write", "--milliseconds", self.milliseconds]

            def through(server: Contestant, clients: int, window: int) -> Figures:
                before = output_writes(programs, server)
                figures = self.rate(server, clients, "--window", window)
                counted = output_writes(programs, server) - before
                if counted < figures["answers"]:
                    raise RuntimeError(f"{figures['answers']} answers, {counted} writes")
                server["board"].command("log clear")
                return figures

            def alone(*more: object) -> Figures:
                figures = json.loads(programs.run([*work, *more], board["environment"]))
                board["board"].command("log clear")
                return figures

            contestants = {"server": lambda: through(server, 8, 1),
                           "server, one client": lambda: through(server, 1, 1),
                           "server, one client ahead": lambda: through(server, 1, 16),
                           "bare": alone, "bare beside a reader": lambda: alone("--reader"),
                           "bare server": lambda: through(bare_server, 8, 1),
                           "bare server, one client": lambda: through(bare_server, 1, 1),
                           "bare server, one client ahead":
                               lambda: through(bare_server, 1, 16)}
            return self.alternate(contestants, [1], lambda _name, run, _one: run())

    def idle(self) -> Series:
        with Programs(self.binaries) as programs:
            contestants = {"server": programs.board_server()["process"],
                           "bare asleep": programs.waiter("sleep")["process"]}
            seconds = 1 if self.quick else 2

            def measure(_name: str, asleep: Process | None, _one: int) -> Figures:
                # Only now: it keeps a core busy, which the others are not to notice.
                process = asleep or programs.waiter("spin")["process"]
                before = processor_seconds(process.pid)
                time.sleep(seconds)
                share = (processor_seconds(process.pid) - before) / seconds
                if not asleep:
                    process.close()
                return {"percent": 100 * share}

            return self.alternate(contestants | {"bare": None}, [1], measure)

    def start(self) -> Series:
        """With the time that it takes to start any program from here."""
        def measure(_name: str, binary: str, _one: int) -> Figures:
            port = free_port()
            arguments = {"GpioServer": [f"--port={port}", "--test"],
                         "bare-server": ["--port", str(port)]}[binary]
            with Programs(self.binaries) as programs:
                began = time.perf_counter()
                programs.spawn([self.binaries / binary, *arguments])
                footprint.connect(port, pause=0).close()
                return {"p50": (time.perf_counter() - began) * 1e6}

        return self.alternate({"server": "GpioServer", "bare": "bare-server"}, [1], measure)

    def micro(self) -> Series:
        results: Series = {}
        for _ in range(self.rounds):
            output = subprocess.run(
                [self.binaries / "micro-benchmarks", "--benchmark_format=json",
                 f"--benchmark_min_time={0.05 if self.quick else 0.3}"],
                check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
            for entry in json.loads(output)["benchmarks"]:
                results.setdefault(entry["name"], {1: []})[1].append(
                    {"nanoseconds": entry["real_time"]})
        return results


WORKLOADS = ("latency", "rates", "connects", "memory", "broadcast", "writes", "micro", "idle",
             "start")


def from_board(board: Contestant) -> list[str]:
    return ["--trigger-path", board["board"].control, "--trigger", hexed("inputs 01 00\n"),
            "--trigger", hexed("inputs 00 00\n")]


def output_writes(programs: Programs, server: Contestant) -> int:
    return int(server["board"].command("stats output-writes"))
