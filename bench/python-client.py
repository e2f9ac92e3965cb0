#!/usr/bin/python3
"""Compares the client and the pins for gpiozero with bare socket loops, side by side in one run.

Prints for each figure the medians of the rounds and their ratio. The loops that are compared take
turns in every round, so that a busy machine slows both.
"""

from __future__ import annotations

import argparse
import pathlib
import socket
import statistics
import sys
import threading
import time
from collections.abc import Callable
from typing import Union

SOURCE = pathlib.Path(__file__).parents[1]
sys.path[:0] = [str(SOURCE / "python"), str(SOURCE / "tests/python")]

import gpio_client  # noqa: E402
from support import LIMIT, BoardServer, Server, eventually  # noqa: E402


#: Makes a listener, and what closes it.
Maker = Callable[[], tuple[Union["BareListener", "Callback"], Callable[[], None]]]


def bare_connection(server: Server) -> socket.socket:
    sock = socket.create_connection(("127.0.0.1", server.port))
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return sock


def bare_request(sock: socket.socket, command: bytes) -> bytes:
    sock.sendall(command)
    answer = sock.recv(4096)
    while not answer.endswith(b"\n"):
        answer += sock.recv(4096)
    return answer


def rate(function: Callable[[], object], count: int) -> float:
    began = time.perf_counter()
    for _ in range(count):
        function()
    return count / (time.perf_counter() - began)


def take_turns(rounds: int, *measures: Callable[[], float]) -> list[list[float]]:
    """One list of results for each measure; each round begins with another one."""
    results: list[list[float]] = [[] for _ in measures]
    for turn in range(rounds):
        for offset in range(len(measures)):
            number = (turn + offset) % len(measures)
            results[number].append(measures[number]())
    return results


class Report:
    def __init__(self) -> None:
        self.failed = False

    def add(
        self,
        name: str,
        results: list[float],
        bare: list[float],
        limit: float,
        *,
        at_least: bool,
        unit: str,
    ) -> None:
        own, other = statistics.median(results), statistics.median(bare)
        ratio = statistics.median(a / b for a, b in zip(results, bare))
        met = ratio >= limit if at_least else ratio <= limit
        self.failed = self.failed or not met
        print(
            f"{name:28} {own:9.1f} {unit}   bare loop {other:9.1f} {unit}   ratio {ratio:.2f} "
            f"({'at least' if at_least else 'at most'} {limit}){'' if met else '  MISSED'}",
            flush=True,
        )


def measure_requests(report: Report, rounds: int, count: int) -> None:
    from gpiozero import LED

    from gpio_client.gpioserver import GpioServerFactory

    with Server() as server, gpio_client.connect(server.address) as client:
        bare = bare_connection(server)
        factory = GpioServerFactory(server.address)
        led = LED(5, pin_factory=factory)
        led.on()

        def switch() -> None:
            led.on()
            led.off()

        read, bare_read, switched, bare_written = take_turns(
            rounds,
            lambda: rate(lambda: client.read(3), count),
            lambda: rate(lambda: bare_request(bare, b"R30"), count),
            lambda: 2 * rate(switch, count // 2),
            lambda: rate(lambda: bare_request(bare, b"W51"), count),
        )
        report.add("Client.read", read, bare_read, 0.9, at_least=True, unit="/s")
        report.add("LED.on and off", switched, bare_written, 0.7, at_least=True, unit="/s")
        factory.close()
        bare.close()


class BareListener:
    """A loop of recv that notes when a change message was there."""

    def __init__(self, server: Server) -> None:
        self.sock = bare_connection(server)
        bare_request(self.sock, b"L000")
        self.seen = threading.Event()
        self.when = 0.0
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self) -> None:
        text = b""
        while True:
            data = self.sock.recv(4096)
            if not data:
                return
            text += data
            if text.endswith(b"\n"):
                self.when = time.perf_counter()
                self.seen.set()
                text = b""

    def close(self) -> None:
        self.sock.shutdown(socket.SHUT_RDWR)


class Callback:
    def __init__(self) -> None:
        self.seen = threading.Event()
        self.when = 0.0

    def __call__(self, *_: object) -> None:
        self.when = time.perf_counter()
        self.seen.set()


def measure_edges(report: Report, rounds: int, count: int) -> None:
    from gpiozero import Button

    from gpio_client.gpioserver import GpioServerFactory

    # Each listener has the board for itself while it is measured: all on at once would wait for
    # each other's turn on the processor.
    with BoardServer() as board:

        def median_of(make: Maker) -> Callable[[], float]:
            def measure() -> float:
                callback, close = make()
                times = []
                for number in range(count):
                    callback.seen.clear()
                    began = time.perf_counter()
                    board.inputs(*([] if number % 2 else [13]))
                    if not callback.seen.wait(LIMIT):
                        raise RuntimeError(f"edge {number} was not told by {make.__name__}")
                    times.append((callback.when - began) * 1e6)
                close()
                return statistics.median(times[2:])

            return measure

        def make_bare() -> tuple[BareListener, Callable[[], None]]:
            listener = BareListener(board)
            return listener, listener.close

        def make_watcher() -> tuple[Callback, Callable[[], None]]:
            callback = Callback()
            watcher = gpio_client.Watcher(callback, board.address)
            watcher.start()
            return callback, watcher.close

        def make_button() -> tuple[Callback, Callable[[], None]]:
            callback = Callback()
            factory = GpioServerFactory(board.address)
            button = Button(13, pull_up=None, active_state=True, pin_factory=factory)
            button.when_pressed = button.when_released = lambda: callback()

            def close() -> None:
                button.close()
                factory.close()

            return callback, close

        board.inputs(14)
        with gpio_client.connect(board.address) as client:
            if not eventually(lambda: client.read(14)):
                raise RuntimeError("the board does not tell its inputs")
        board.inputs()
        watched, pressed, bare = take_turns(
            rounds, median_of(make_watcher), median_of(make_button), median_of(make_bare)
        )
        report.add("edge to Watcher", watched, bare, 1.3, at_least=False, unit="us")
        report.add("edge to Button", pressed, bare, 1.6, at_least=False, unit="us")


def main() -> int:
    parser = argparse.ArgumentParser(
        prog="scripts/bench-python",
        description=f"Builds what is missing. {__doc__}",
        epilog="PRESET in the environment names the build preset to use (release).",
    )
    parser.add_argument("--rounds", type=int, default=41, help="how often each takes its turn (41)")
    parser.add_argument("--requests", type=int, default=400, help="in each turn (400)")
    parser.add_argument("--edges", type=int, default=40, help="in each turn (40)")
    parser.add_argument("--guard", action="store_true", help="fail when a ratio is missed")
    options = parser.parse_args()
    report = Report()
    if options.requests:
        measure_requests(report, options.rounds, options.requests)
    measure_edges(report, options.rounds, options.edges)
    return 1 if options.guard and report.failed else 0


if __name__ == "__main__":
    sys.exit(main())
