"""The firmware on a simulated part, driven through the simulator's sockets."""

from __future__ import annotations

import os
import socket
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Iterable, List, NamedTuple, Optional, Union

sys.path.append(str(Path(__file__).parents[2] / "scripts/lib"))
from board import eventually, when_possible  # noqa: E402

FREQUENCY = 14_745_600
BYTE = 1280  # cycles that a byte takes on the line

Byte = Union[int, str]


def cycles(milliseconds: float) -> int:
    return round(milliseconds * FREQUENCY / 1000)


def milliseconds(count: float) -> float:
    return count * 1000 / FREQUENCY


class Sent(NamedTuple):
    start: int
    value: int


class Event(NamedTuple):
    at: int
    text: str


class Message(NamedTuple):
    start: int
    data: bytes


class Simulator:
    """One simulated board; `environment` variables name the programs.

    In stepped time, which is the default, nothing happens but during run(). Otherwise time is that
    of the clock on the wall, and line() is the serial line.
    """

    START_LIMIT_SECONDS = 30.0

    def __init__(self, elf: str, stepped: bool = True) -> None:
        self._directory = tempfile.TemporaryDirectory(prefix="firmware-")
        self.path = os.path.join(self._directory.name, "line")
        words = [os.environ["FIRMWARE_SIMULATOR"], "--elf", elf, "--socket", self.path]
        words += ["--until-end-of-input"] + (["--stepped"] if stepped else [])
        self._process = subprocess.Popen(
            words, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
        )
        self._control = self._connect(self.path + ".control")
        self._answers = self._control.makefile("r", encoding="ascii")
        self.now = 0

    def _connect(self, path: str) -> socket.socket:
        def connected() -> socket.socket:
            connection = socket.socket(socket.AF_UNIX)
            connection.settimeout(self.START_LIMIT_SECONDS)
            try:
                connection.connect(path)
            except OSError:
                connection.close()
                raise
            return connection

        try:
            return when_possible(connected, lambda: self._process.poll() is None)
        except OSError:
            self.close()
            raise

    def line(self) -> socket.socket:
        """A connection to the serial line, which the caller closes."""
        return self._connect(self.path)

    def close(self) -> None:
        if self._process.stdin is not None:
            self._process.stdin.close()
        self._process.wait(timeout=self.START_LIMIT_SECONDS)
        if self._process.stderr is not None:
            self._process.stderr.close()
        if hasattr(self, "_answers"):
            self._answers.close()
            self._control.close()
        self._directory.cleanup()

    def command(self, text: str) -> str:
        """Runs a command and returns its answer without the leading "ok"."""
        self._control.sendall(text.encode("ascii") + b"\n")
        answer = self._answers.readline().rstrip("\n")
        if not answer.startswith("ok"):
            raise RuntimeError(f"{text}: {answer or 'the simulator ended'}")
        return answer[3:]

    def run(self, count: int) -> None:
        self.now = int(self.command(f"run {count}"))

    def run_ms(self, duration: float) -> None:
        self.run(cycles(duration))

    def inputs(self, a: int, b: int, driven_a: int = 0xFF, driven_b: int = 0xFF) -> None:
        self.command(f"inputs {a:x} {b:x} {driven_a:x} {driven_b:x}")

    def toggle(self, a: int, b: int, period: int) -> None:
        self.command(f"toggle {a:x} {b:x} {period}")

    def outputs(self) -> str:
        return self.command("outputs")

    def bridge_reset(self) -> str:
        return self.command("bridge-reset")

    def receive(self, data: Iterable[Byte]) -> None:
        """Bytes of the host, as numbers or as the simulator's own words such as "30!"."""
        self.command(
            "receive " + " ".join(f"{one:x}" if isinstance(one, int) else one for one in data)
        )

    def sent(self) -> List[Sent]:
        words = (word.split(":") for word in self.command("sent").split())
        return [Sent(int(start), int(value, 16)) for start, value in words]

    def sent_bytes(self) -> bytes:
        return bytes(byte.value for byte in self.sent())

    def events(self) -> List[Event]:
        text = self.command("events")
        words = (word.split(":") for word in text.split(",") if word)
        return [Event(int(at), what) for at, what in words]

    def statistic(self, name: str) -> int:
        pairs = (pair.split("=") for pair in self.command("stats").split())
        return int(dict(pairs)[name])

    def ask(self, request: Iterable[Byte], limit_ms: float = 5) -> bytes:
        """Sends a request and returns what comes back within the limit."""
        self.sent()
        self.receive(request)
        self.run_ms(limit_ms)
        return self.sent_bytes()


def messages(sent: List[Sent]) -> List[Message]:
    """Cuts what was sent into messages; a byte that belongs to none fails the test."""
    result = []
    for first in range(0, len(sent), 4):
        part = sent[first : first + 4]
        data = bytes(byte.value for byte in part)
        letters = (data[0:1], data[-1:])
        if len(part) != 4 or letters not in ((b"R", b"r"), (b"V", b"v"), (b"I", b"i")):
            raise AssertionError(f"not a message: {data!r} in {sent[: first + 8]}")
        result.append(Message(part[0].start, data))
    return result


def of_letter(letter: str, all_messages: List[Message]) -> List[Message]:
    return [message for message in all_messages if message.data[0:1] == letter.encode("ascii")]


def elf(name: Optional[str] = None) -> str:
    return os.environ[name or "FIRMWARE_ELF"]
