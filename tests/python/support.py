"""The real server on its test back end or on a virtual board, and servers that misbehave."""

from __future__ import annotations

import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from collections.abc import Callable
from typing import TypeVar

SOURCE = pathlib.Path(__file__).parents[2]
sys.path.append(str(SOURCE / "scripts/lib"))
from board import VirtualBoard, eventually, free_port, listens, reserved_port, when_possible

PROGRAMS = pathlib.Path(os.environ.get("GPIO_PROGRAMS") or SOURCE / "build/release/bin")
LIMIT = 30.0

S = TypeVar("S", bound="Server")


class Process:
    """A program that ends with the test. `output` is a file for what it writes."""

    def __init__(
        self,
        *command: object,
        environment: dict[str, str] | None = None,
        ignores_broken_pipes: bool = True,
        output: pathlib.Path | str | None = None,
    ) -> None:
        self.output = open(output, "a+") if output else tempfile.TemporaryFile(mode="w+")
        self.process = subprocess.Popen(
            [str(part) for part in command],
            stdin=subprocess.DEVNULL,
            stdout=self.output,
            stderr=subprocess.STDOUT,
            env={**os.environ, **(environment or {})},
            restore_signals=not ignores_broken_pipes,  # Python itself ignores them.
        )
        self.pid = self.process.pid

    def is_running(self) -> bool:
        return self.process.poll() is None

    def text(self) -> str:
        """All that it has written so far."""
        return os.pread(self.output.fileno(), 1 << 24, 0).decode("utf-8", "replace")

    def pause(self) -> None:
        """Stops it; on a busy system the last thread stands still some time after the signal."""
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED)

    def resume(self) -> None:
        self.process.send_signal(signal.SIGCONT)

    def close(self) -> None:
        self.process.kill()
        self.process.wait()
        self.output.close()


class Server:
    """GpioServer on a port that stays its own over restarts and losses."""

    def __init__(self, *arguments: str, environment: dict[str, str] | None = None) -> None:
        self.reserved, self.port = reserved_port()
        self.address = f"127.0.0.1:{self.port}"
        self.arguments = arguments or ("--test",)
        self.environment = environment
        self.process: Process
        self.start()

    def start(self) -> None:
        self.process = Process(
            PROGRAMS / "GpioServer",
            f"--port={self.port}",
            *self.arguments,
            environment=self.environment,
        )
        if not eventually(self.listens):
            raise RuntimeError("the server does not listen:\n" + self.process.text())

    def listens(self) -> bool:
        return listens(self.port)

    def stop(self) -> None:
        self.process.close()

    def connections(self) -> int:
        """How many clients it has had since it was started."""
        return self.process.text().count("New incoming connection: Start handling commands.")

    def text(self) -> str:
        return self.process.text()

    def close(self) -> None:
        self.stop()
        self.reserved.close()

    def __enter__(self: S) -> S:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class BoardServer(Server):
    """GpioServer in board mode on a virtual board."""

    def __init__(self, *options: str) -> None:
        self.directory = tempfile.TemporaryDirectory(prefix="board.")
        self.board = VirtualBoard(PROGRAMS, self.directory.name, options)
        self.command = self.board.command
        super().__init__("--ftdi", environment=self.board.environment)

    def inputs(self, *pins: int) -> None:
        """Makes these inputs (13 to 28) high and all others low."""
        mask = sum(1 << (pin - 13) for pin in pins)
        self.command(f"inputs {mask & 255:02x} {mask >> 8:02x}")

    def outputs(self) -> str:
        """The levels of outputs 0 to 12, as clients number them."""
        device = self.command("outputs").split()[0]
        return (device[12] + device[:12])[:13]

    def unplug(self) -> None:
        self.command("unplug")
        if not eventually(lambda: not self.listens()):
            raise RuntimeError("the server did not notice that the board is gone")

    def plug(self) -> None:
        self.command("plug")
        if not eventually(self.listens):
            raise RuntimeError("the server did not come back with the board")

    def close(self) -> None:
        super().close()
        self.board.end()
        self.directory.cleanup()


class ServerTest(unittest.TestCase):
    """Tests that share one server in test mode, with its debug lines."""

    server: Server

    @classmethod
    def setUpClass(cls) -> None:
        cls.server = Server("--test", "--debug")
        cls.addClassCleanup(cls.server.close)


class BoardTest(unittest.TestCase):
    """Tests that share one server on a virtual board with these options."""

    OPTIONS: tuple[str, ...] = ()
    board: BoardServer

    @classmethod
    def setUpClass(cls) -> None:
        cls.board = BoardServer(*cls.OPTIONS)
        cls.addClassCleanup(cls.board.close)


class Script:
    """A server that runs function(connection) for each client, on a thread."""

    def __init__(self, *functions: Callable[[socket.socket], None]) -> None:
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.address = "127.0.0.1:%d" % self.listener.getsockname()[1]
        self.functions = functions
        self.accepted: list[socket.socket] = []
        self.problem: Exception | None = None
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self) -> None:
        for function in self.functions:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            self.accepted.append(connection)
            connection.settimeout(LIMIT)
            try:
                function(connection)
            except OSError:
                pass
            except Exception as error:  # the test sees it when it ends
                self.problem = error

    def close(self) -> None:
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for connection in self.accepted:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
        self.thread.join(LIMIT)
        for connection in self.accepted:
            connection.close()
        if self.problem:
            raise self.problem

    def __enter__(self) -> Script:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def take(connection: socket.socket, size: int) -> bytes:
    """The next bytes; fewer when the client hangs up."""
    got = b""
    while len(got) < size:
        piece = connection.recv(size - len(got))
        if not piece:
            break
        got += piece
    return got


def conversation(
    *turns: tuple[bytes, bytes], then: str = "hang up"
) -> Callable[[socket.socket], None]:
    """For Script: expects each turn's command and sends its answer.

    Then it hangs up, waits for the client to do so ("wait"), does the last turn again and again
    ("repeat"), or leaves the connection as it is and serves the next client ("leave").
    """

    def converse(connection: socket.socket) -> None:
        number = 0
        while number < len(turns) or then == "repeat":
            command, answer = turns[min(number, len(turns) - 1)]
            got = take(connection, len(command))
            if len(got) < len(command):
                return
            if got != command:
                raise AssertionError(f"expected {command!r}, got {got!r}")
            connection.sendall(answer)
            number += 1
        if then == "hang up":
            connection.shutdown(socket.SHUT_WR)
        elif then == "wait":
            connection.recv(1)

    return converse


TEST_PROBE = (b"I00", b"I0000I\n")
BOARD_PROBE = (b"I00", b"^INVALID COMMAND: I00^")


def untold_firmware(connection: socket.socket) -> None:
    """For Script: a board that has not told its firmware."""
    answers = {
        b"A": b"A00000000A\n",
        b"I": BOARD_PROBE[1],
        b"L": b"LL\n",
        b"P": b"Pffffffffffffe000P\n",
        b"V": b"VUnknownV",
    }
    while command := connection.recv(4):
        connection.sendall(answers[command[:1]])


def unused_address() -> str:
    """An address where nobody listens."""
    return f"127.0.0.1:{free_port()}"
