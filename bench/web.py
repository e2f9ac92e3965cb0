"""The command behind scripts/bench-web, which builds everything first."""

from __future__ import annotations

import argparse
import contextlib
import re
import select
import shutil
import socket
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

from board import free_port, listens, memory
from support import LIMIT, PROGRAMS, BoardServer, Process, eventually

NGINX = """daemon off; master_process off; pid {directory}/pid; error_log {directory}/log;
load_module modules/ngx_nchan_module.so;
events {{ worker_connections 2048; }}
http {{
    access_log off; tcp_nodelay on; keepalive_requests 1000000000;
    client_body_temp_path {directory}; proxy_temp_path {directory};
    fastcgi_temp_path {directory}; uwsgi_temp_path {directory}; scgi_temp_path {directory};
    server {{
        listen 127.0.0.1:{port};
        location /publish {{ nchan_publisher; nchan_channel_id pins;
                             nchan_message_buffer_length 1; }}
        location /events {{ nchan_subscriber eventsource; nchan_channel_id pins;
                            nchan_subscriber_first_message newest; }}
    }}
}}
"""
STREAM = "GET {path} HTTP/1.1\r\nHost: localhost\r\nAccept: text/event-stream\r\n\r\n"


def p99(values: list[float]) -> float:
    return statistics.quantiles(values, n=100, method="inclusive")[98]


class World:
    """A board, its server, and those that spread its changes."""

    def __init__(self, stack: contextlib.ExitStack) -> None:
        directory = stack.enter_context(tempfile.TemporaryDirectory(prefix="bench-web."))
        self.stack = stack
        self.board = stack.enter_context(BoardServer())
        self.raw = self.board.port
        self.bridge, listening = self.start(r"listening on \S+:(\d+)/", PROGRAMS / "gpio-web",
                                            f"--server={self.board.address}",
                                            "--listen=127.0.0.1:0")
        self.web = int(listening[1])
        self.spread = free_port()
        config = Path(directory, "nginx.conf")
        config.write_text(NGINX.format(directory=directory, port=self.spread), encoding="ascii")
        self.start("", shutil.which("nginx"), "-p", "/usr/share/nginx", "-c", config)
        if not eventually(lambda: listens(self.spread)):
            raise RuntimeError("nginx does not listen")
        self.start("publishing", PROGRAMS / "web-publisher", self.board.address, self.spread)
        self.level = 0

    def start(self, words: str, *command: object) -> tuple[Process, re.Match[str]]:
        """A program that has said the words, and where they match."""
        process = Process(*command)
        self.stack.callback(process.close)
        match = eventually(lambda: re.search(words, process.text()))
        if not match:
            raise RuntimeError(f"{command[0]} does not start:\n{process.text()}")
        return process, match

    def change(self) -> float:
        self.level ^= 1
        began = time.perf_counter()
        self.board.command(f"inputs 0{self.level} 00")
        return began

    def memory(self) -> int:
        return memory(self.bridge.pid)["Rss"]


def open_streams(port: int, request: bytes, greeting: bytes, count: int,
                 receive_buffer: int | None = None) -> list[socket.socket]:
    streams = []
    for _ in range(count):
        stream = socket.socket()
        if receive_buffer:
            stream.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        stream.settimeout(LIMIT)
        stream.connect(("127.0.0.1", port))
        stream.sendall(request)
        got = b""
        while greeting not in got:
            piece = stream.recv(65536)
            if not piece:
                raise RuntimeError("a stream was refused")
            got += piece
        streams.append(stream)
    return streams


KINDS = {
    "raw protocol": (lambda world: world.raw, b"L000", b"LL", b"U"),
    "gpio-web": (lambda world: world.web, STREAM.format(path="/api/v1/events").encode(),
                 b"}]}\n\n", b"change"),
    "nginx with nchan": (lambda world: world.spread, STREAM.format(path="/events").encode(),
                         b"\r\n\r\n", b"data"),
}


def latencies(world: World, kind: str, count: int, changes: int) -> list[float]:
    """Milliseconds from the change at the board to each stream, for all streams and changes."""
    port, request, greeting, mark = KINDS[kind]
    streams = open_streams(port(world), request, greeting, count)
    poller = select.epoll()
    by_number = {stream.fileno(): stream for stream in streams}
    for number in by_number:
        poller.register(number, select.EPOLLIN)
    results = []
    try:
        for change in range(changes + 3):
            # The next change comes when everything is quiet again.
            while ready := poller.poll(0.03):
                for number, _ in ready:
                    by_number[number].recv(65536)
            began = world.change()
            waiting = set(by_number)
            while waiting:
                ready = poller.poll(LIMIT)
                if not ready:
                    raise RuntimeError(f"{kind}: {len(waiting)} streams were not told")
                for number, _ in ready:
                    if mark in by_number[number].recv(65536) and number in waiting:
                        waiting.discard(number)
                        if change >= 3:
                            results.append((time.perf_counter() - began) * 1000)
    finally:
        poller.close()
        for stream in streams:
            stream.close()
    return results


def measure_spreading(world: World, rounds: int, changes: int) -> None:
    print("From the change at the board to the reader, ms: median (99th percentile); "
          "ratios of medians")
    for count in (1, 10, 100):
        results: dict[str, list[float]] = {kind: [] for kind in KINDS}
        for _ in range(rounds):
            for kind in KINDS:
                results[kind] += latencies(world, kind, count, changes)
        medians = {kind: statistics.median(values) for kind, values in results.items()}
        print(f"{count:4d} readers: " + ", ".join(
            f"{kind} {medians[kind]:.3f} ({p99(values):.3f})" for kind, values in results.items()))
        own = medians["gpio-web"]
        print(f"      gpio-web to nchan {own / medians['nginx with nchan']:.2f}, "
              f"to the raw protocol {own / medians['raw protocol']:.2f}", flush=True)


def measure_slow_readers(world: World, rounds: int, changes: int) -> None:
    port, request, greeting, _ = KINDS["gpio-web"]
    alone, beside = [], []
    for _ in range(rounds):
        alone += latencies(world, "gpio-web", 100, changes)
        slow = open_streams(port(world), request, greeting, 20, receive_buffer=2048)
        beside += latencies(world, "gpio-web", 100, changes)
        for stream in slow:
            stream.close()
    ratio = p99(beside) / p99(alone)
    print(f"99th percentile of 100 readers beside 20 that do not read: ratio {ratio:.2f}",
          flush=True)


def measure_memory(world: World) -> None:
    port, request, greeting, _ = KINDS["gpio-web"]
    count = 200
    for stream in open_streams(port(world), request, greeting, 20):
        stream.close()
    time.sleep(0.5)
    before = world.memory()
    streams = open_streams(port(world), request, greeting, count)
    time.sleep(0.5)
    print(f"memory of an idle stream: {(world.memory() - before) / count:.1f} KiB")
    for stream in streams:
        stream.close()


def measure_scrapes(world: World) -> None:
    with socket.create_connection(("127.0.0.1", world.web)) as connection:
        times = []
        for _ in range(2000):
            began = time.perf_counter()
            connection.sendall(b"GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n")
            got = connection.recv(65536)
            size = int(re.findall(rb"Content-Length: (\d+)", got)[0])
            while len(got) < got.index(b"\r\n\r\n") + 4 + size:
                got += connection.recv(65536)
            times.append((time.perf_counter() - began) * 1000)
    print(f"scrapes: median {statistics.median(times):.2f} ms, 99th percentile {p99(times):.2f} ms")
    promtool = shutil.which("promtool")
    if promtool:
        metrics = got[got.index(b"\r\n\r\n") + 4:]
        result = subprocess.run([promtool, "check", "metrics"], input=metrics,
                                capture_output=True, check=False)
        clean = result.returncode == 0 and not result.stderr
        print("promtool check metrics:", "clean" if clean else result.stderr.decode())


def main() -> None:
    parser = argparse.ArgumentParser(
        prog="scripts/bench-web",
        description="Builds a release and measures gpio-web beside nginx with nchan and the raw "
                    "protocol, on one virtual board in one run; prints medians and ratios, memory "
                    "and scrapes.")
    parser.add_argument("--rounds", type=int, default=3,
                        help="rounds for each contestant (%(default)s)")
    parser.add_argument("--changes", type=int, default=40,
                        help="changes in each round (%(default)s)")
    arguments = parser.parse_args()
    with contextlib.ExitStack() as stack:
        world = World(stack)
        measure_memory(world)
        measure_scrapes(world)
        measure_spreading(world, arguments.rounds, arguments.changes)
        measure_slow_readers(world, arguments.rounds, arguments.changes)


if __name__ == "__main__":
    main()
