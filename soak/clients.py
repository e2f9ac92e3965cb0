"""The clients of a soak: each checks everything that it is told."""

from __future__ import annotations

import re
import socket
import struct
import threading
import time

from world import World

PATIENCE = 150.0

CONSTANT = {
    "I000": "I0010I\n",
    "O000": "O000dO\n",
    "P000": "Pffffffffffffe000P\n",
    "B000": "DBG\n",
    "K000": "KK\n",
    "D000": "D1D\n",
    "D0D0": "D0D\n",
    "DFF0": "D0D\n",
    "S0D1": "S0S\n",
    "V000": "Vv2.5V\n",
    "W0D1": "W0W\n",
    "R000": "R0R\n",
    "R1D0": "R0R\n",
    "w011": "^ UNKNOWN COMMAND: w011 ^",
    "^%s^": "^ UNKNOWN COMMAND:  %s  ^",
}

ANSWER = re.compile(rb"\^[^^]*\^|[A-Z][^\n^]*\n")
CHANGE_OR_ANSWER = re.compile(rb"U([0-9a-f]+)\|([0-9a-f]+)U|LL|A[0-9a-f]{8,16}A")


class Lost(Exception):
    """The connection has ended, or could not be made."""


class Client(threading.Thread):
    def __init__(self, world: World, name: str) -> None:
        super().__init__(name=name, daemon=True)
        self.world = world
        self.random = world.random(name)
        self.socket: socket.socket
        self.pending = b""
        self.since = 0.0

    def run(self) -> None:
        while not self.world.stop.is_set():
            self.since = time.monotonic()
            try:
                with socket.socket() as self.socket:
                    self.connect()
                    self.visit()
                    self.leave()
            except (Lost, OSError) as problem:
                self.judge(problem)
            self.world.stop.wait(self.random.uniform(0.0, 0.5))

    def judge(self, problem: Exception) -> None:
        if self.world.lost_since(self.since):
            self.world.count("visits ended by a loss")
        elif not self.world.stop.is_set():
            self.world.finding(f"{self.name}: {problem!r} while the board was there")

    def connect(self) -> None:
        self.pending = b""
        self.prepare()
        self.socket.settimeout(PATIENCE)
        self.socket.connect(("127.0.0.1", self.world.port))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.world.count("connections")

    def prepare(self) -> None:
        """Before it connects."""

    def visit(self) -> None:
        raise NotImplementedError

    def receive(self) -> None:
        data = self.socket.recv(65536)
        if not data:
            raise Lost("end of stream")
        self.pending += data

    def answer(self) -> str:
        while (match := ANSWER.match(self.pending)) is None:
            self.receive()
        self.pending = self.pending[match.end():]
        return match.group().decode("latin-1")

    def reset(self) -> None:
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def leave(self) -> None:
        if self.random.random() < 0.5:
            self.reset()
            self.world.count("connections reset")


class Worker(Client):
    """Owns one output: nobody else writes it, so every answer about it is known."""

    def __init__(self, world: World, pin: int) -> None:
        super().__init__(world, f"worker {pin}")
        self.pin = pin
        self.level: int | None = None

    def visit(self) -> None:
        for _ in range(self.random.randint(1, 60)):
            if self.world.stop.is_set():
                return
            batch = [self.command() for _ in range(self.random.choice((1, 1, 1, 3)))]
            begin = time.monotonic()
            self.socket.sendall("".join(batch).encode())
            for command in batch:
                self.check(command, self.expect(command), begin)
            self.world.stop.wait(self.random.choice((0, 0, 0.005, 0.05)))

    def command(self) -> str:
        kind = self.random.random()
        if kind < 0.3:
            return f"W{self.pin:02X}{self.random.randint(0, 1)}"
        if kind < 0.6:
            return "A000"
        return self.random.choice(list(CONSTANT))

    def expect(self, command: str) -> str:
        if command[0] == "W" and command != "W0D1":
            self.level = None
        answer = self.answer()
        self.world.count("commands")
        return answer

    def check(self, command: str, answer: str, begin: float) -> None:
        if command == "A000":
            self.check_pins(answer, begin)
        elif command in CONSTANT:
            if answer != CONSTANT[command]:
                self.world.finding(f"{self.name}: {command} was answered {answer!r}")
        else:
            self.level = int(command[3])
            if answer != "W1W\n" and not (answer == "W0W\n" and self.world.lost_since(begin)):
                self.world.finding(f"{self.name}: {command} was answered {answer!r}")

    def check_pins(self, answer: str, begin: float) -> None:
        match = re.fullmatch(r"A([0-9a-f]{8})A\n", answer)
        if match is None:
            self.world.finding(f"{self.name}: A000 was answered {answer!r}")
            return
        mask = int(match[1], 16)
        if not self.world.may_see((mask & 0xFF, mask >> 8 & 0xFF), begin) or mask >> 24:
            self.world.finding(f"{self.name}: never were the pins {answer!r}")
        if self.level is not None and (mask >> (16 + self.pin - 1) & 1) != self.level:
            self.world.finding(f"{self.name}: wrote {self.level}, but the pins are {answer!r}")


class Listener(Client):
    """Every change must follow from the one before: none is lost, doubled or torn."""

    def visit(self) -> None:
        self.socket.sendall(b"L000")
        self.socket.settimeout(0.5)
        end = time.monotonic() + self.random.uniform(2, 60)
        previous = None
        interested = False
        self.told = self.since
        while time.monotonic() < end and not self.world.stop.is_set():
            # Where many connect at once, the system may refuse who sends more before an answer.
            if interested and self.random.random() < 0.05:
                self.socket.sendall(b"A000")
            begin = time.monotonic()
            try:
                self.receive()
            except TimeoutError:
                continue
            interested = True
            previous = self.take_tokens(previous, begin)

    def take_tokens(self, previous: int | None, begin: float) -> int | None:
        self.pending = self.pending.replace(b"\n", b"")
        while (match := CHANGE_OR_ANSWER.match(self.pending)) is not None:
            self.pending = self.pending[match.end():]
            if match[1] is not None:
                previous = self.check_change(int(match[1], 16), int(match[2], 16), previous, begin)
        if len(self.pending) > 40:
            raise Lost(f"unreadable: {self.pending[:80]!r}")
        return previous

    def check_change(self, changed: int, values: int, previous: int | None, begin: float) -> int:
        self.world.count("changes received")
        state = (values >> 13 & 0xFF, values >> 21 & 0xFF)
        if values & 0x1FFF or not self.world.may_see(state, begin):
            self.world.finding(f"{self.name}: never were the inputs {values:#x}")
        follows = previous is None or changed == previous ^ values
        if not follows and not (changed == values and self.world.lost_since(self.told)):
            self.world.finding(
                f"{self.name}: {changed:#x} changed to {values:#x} after {previous:#x}")
        self.told = time.monotonic()
        return values


class Staller(Client):
    """Listens, and perhaps asks a lot, but never reads."""

    def prepare(self) -> None:
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)

    def visit(self) -> None:
        self.socket.sendall(b"L000")
        self.world.count("stalls")
        if self.random.random() < 0.3:
            self.socket.settimeout(1.0)
            try:
                self.socket.sendall(b"A000" * 50000)
            except TimeoutError:
                pass
        self.world.stop.wait(self.random.uniform(1, 45))

    def judge(self, problem: Exception) -> None:
        """It may be dropped at any time."""


class Resetter(Client):
    """Asks something, perhaps only in part, and resets the connection at once."""

    def visit(self) -> None:
        request = self.random.choice((b"", b"A", b"A000", b"L000", b"W0C1" * 20, b"\xff\x00%n\n"))
        self.socket.sendall(request)
        self.world.stop.wait(self.random.choice((0, 0, 0.001, 0.02)))

    def leave(self) -> None:
        self.reset()
        self.world.count("connections reset")

    def judge(self, problem: Exception) -> None:
        """What it sent may have made the server close the connection first."""
        if isinstance(problem, ConnectionRefusedError):
            super().judge(problem)


def all_clients(world: World) -> list[Client]:
    return ([Worker(world, pin) for pin in range(1, 5)]
            + [Listener(world, f"listener {number}") for number in range(3)]
            + [Staller(world, f"staller {number}") for number in range(2)]
            + [Resetter(world, f"resetter {number}") for number in range(2)])
