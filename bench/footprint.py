#!/usr/bin/env python3
"""Measures what the server takes: its size, resident memory, and time to the first answer.

Usage: footprint.py SERVER [CLIENTS]

Also for a server of another architecture under qemu-user. Then the memory is what its own files,
heap and stacks take, without the emulator's; the time is the emulator's, which no computer has.
"""

from __future__ import annotations

import contextlib
import os
import re
import socket
import sys
import time
from collections.abc import Iterator
from pathlib import Path

sys.path.append(str(Path(__file__).parents[1] / "tests/python"))
from support import Process, eventually, free_port, when_possible  # noqa: E402

GUEST_SPAN = 1 << 32
PATIENCE = 60.0


def resident_kilobytes(pid: int, program: str) -> int:
    """Resident memory; of an emulated program only what lies in the 4 GiB around its file."""
    emulated = "qemu" in os.readlink(f"/proc/{pid}/exe")
    mappings = []
    start = 0
    name = ""
    for line in Path(f"/proc/{pid}/smaps").read_text(encoding="utf-8").splitlines():
        head = re.match(r"([0-9a-f]+)-[0-9a-f]+ \S+ \S+ \S+ \S+\s*(.*)", line)
        if head:
            start, name = int(head[1], 16), head[2]
        elif line.startswith("Rss:"):
            mappings.append((start, name, int(line.split()[1])))
    if not emulated:
        return sum(rss for _, _, rss in mappings)
    base = min(start for start, name, _ in mappings if name == program) // GUEST_SPAN * GUEST_SPAN
    return sum(rss for start, _, rss in mappings if base <= start < base + GUEST_SPAN)


def connect(port: int, pause: float = 0.001) -> socket.socket:
    """A client that has had its first answer."""
    client = when_possible(lambda: socket.create_connection(("127.0.0.1", port), timeout=PATIENCE),
                           limit=PATIENCE, pause=pause)
    client.sendall(b"R90")
    if client.recv(64).rstrip() != b"R0R":
        raise RuntimeError("no answer")
    return client


@contextlib.contextmanager
def serving(program: str) -> Iterator[tuple[Process, int]]:
    """A server that has just been started, and its port."""
    port = free_port()
    with contextlib.closing(Process(program, f"--port={port}", "--test")) as server:
        yield server, port


def main() -> int:
    if len(sys.argv) < 2 or sys.argv[1] == "--help":
        print((__doc__ or "").strip())
        return 0 if len(sys.argv) > 1 else 2
    program = os.path.realpath(sys.argv[1])
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 16
    began = time.monotonic()
    with serving(program) as (_, port):
        connect(port).close()
        first_answer = time.monotonic() - began
    with serving(program) as (server, port):
        if not eventually(lambda: "Launch was successful." in server.text(), PATIENCE):
            raise RuntimeError("the server does not start")
        idle = resident_kilobytes(server.pid, program)
        clients = [connect(port) for _ in range(count)]
        crowded = resident_kilobytes(server.pid, program)
        for client in clients:
            client.close()
    print(f"size: {os.path.getsize(program)} bytes")
    print(f"resident at start: {idle} KiB")
    print(f"resident with {count} clients: {crowded} KiB")
    print(f"start to first answer: {first_answer * 1000:.0f} ms")
    return 0


if __name__ == "__main__":
    sys.exit(main())
