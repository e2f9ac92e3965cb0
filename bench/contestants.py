"""Starts and stops the programs that are compared, each on a loopback port of its own."""

from __future__ import annotations

import contextlib
import os
import resource
import socket
import subprocess
import tempfile
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from board import VirtualBoard, eventually, free_port, listens
from support import Process

CHANGE = "U2000|2000U"

#: What is known of a program that runs: "port", "process", "request", "board", "environment".
Contestant = dict[str, Any]


def hexed(text: str) -> str:
    return text.encode("latin-1").hex()


def mqtt_string(text: str) -> str:
    return chr(0) + chr(len(text)) + text


def mqtt_connect(name: str) -> str:
    body = mqtt_string("MQTT") + "\x04\x02\x00\x00" + mqtt_string(name)
    return hexed("\x10" + chr(len(body)) + body) + ":4"


def mqtt_subscribe() -> str:
    body = "\x00\x01" + mqtt_string("c") + "\x00"
    return hexed("\x82" + chr(len(body)) + body) + ":5"


def mqtt_publish() -> str:
    body = mqtt_string("c") + CHANGE
    return hexed("\x30" + chr(len(body)) + body)


REDIS_MESSAGE = f"*3\r\n$7\r\nmessage\r\n$1\r\nc\r\n${len(CHANGE)}\r\n{CHANGE}\r\n"
REDIS_SUBSCRIBED = "*3\r\n$9\r\nsubscribe\r\n$1\r\nc\r\n:1\r\n"
REDIS_PUBLISH = hexed(f"PUBLISH c {CHANGE}\r\n")


class Programs:
    """Everything started for one measurement; stopped in reverse order at the end of a "with"."""

    def __init__(self, binaries: Path) -> None:
        self.binaries = binaries
        self._started = contextlib.ExitStack()
        self.directory = Path(self._started.enter_context(
            tempfile.TemporaryDirectory(prefix="bench-")))

    def __enter__(self) -> Programs:
        return self

    def __exit__(self, *_: object) -> None:
        self._started.close()

    def spawn(self, words: Sequence[object], environment: dict[str, str] | None = None,
              log: Path | str = "/dev/null") -> Process:
        process = Process(*words, environment=environment, output=log)
        self._started.callback(process.close)
        return process

    def run(self, words: Sequence[object], environment: dict[str, str] | None = None) -> str:
        result = subprocess.run([str(word) for word in words], check=True, capture_output=True,
                                text=True, env={**os.environ, **(environment or {})})
        return result.stdout

    def listening(self, words: Sequence[object], port: int,
                  environment: dict[str, str] | None = None,
                  log: Path | str = "/dev/null") -> Contestant:
        process = self.spawn(words, environment, log)
        eventually(lambda: listens(port) or not process.is_running())
        if not listens(port):
            raise RuntimeError(f"{words[0]} does not listen")
        return {"port": port, "process": process}

    def server(self, log: Path | str | None = None) -> Contestant:
        """The log goes to a file, as it does in service, unless another is named."""
        port = free_port()
        return self.listening([self.binaries / "GpioServer", f"--port={port}", "--test"], port,
                              log=log or self.directory / f"server-{port}.log") | {
            "request": hexed("R50")}

    def bare(self, writes: int = 2) -> Contestant:
        port = free_port()
        return self.listening([self.binaries / "bare-server", "--port", port, "--writes", writes],
                              port) | {"request": hexed("R50")}

    def redis(self) -> Contestant:
        port = free_port()
        return self.listening(["redis-server", "--port", port, "--bind", "127.0.0.1", "--save", "",
                               "--appendonly", "no", "--dir", self.directory], port) | {
            "request": hexed("PING\r\n")}

    def upsd(self) -> Contestant:
        port = free_port()
        place = self.directory / "nut"
        place.mkdir()
        (place / "nut.conf").write_text("MODE=standalone\n")
        (place / "upsd.conf").write_text(f"LISTEN 127.0.0.1 {port}\nSTATEPATH {place}\n")
        (place / "upsd.users").write_text("")
        (place / "ups.conf").write_text("[dummy]\n driver = dummy-ups\n port = dummy.dev\n")
        (place / "dummy.dev").write_text("ups.status: OL\nTIMER 3600\n")
        for file in place.iterdir():
            file.chmod(0o640)
        place.chmod(0o750)
        paths = {name: str(place) for name in ("NUT_CONFPATH", "NUT_STATEPATH", "NUT_ALTPIDPATH")}
        user = ["-u", subprocess.check_output(["id", "-un"], text=True).strip()]
        self.spawn(["/lib/nut/dummy-ups", "-a", "dummy", "-F", *user], paths)
        eventually((place / "dummy-ups-dummy").exists)
        upsd = self.listening(["/lib/nut/upsd", "-F", *user], port, paths) | {
            "request": hexed("GET VAR dummy ups.status\n")}

        def status() -> bytes:
            with socket.create_connection(("127.0.0.1", port), 2) as client:
                client.sendall(b"GET VAR dummy ups.status\n")
                return client.recv(200)

        if not eventually(lambda: status().startswith(b"VAR dummy ups.status")):
            raise RuntimeError(f"unexpected answer: {status()!r}")
        return upsd

    def mosquitto(self) -> Contestant:
        port = free_port()
        configuration = self.directory / "mosquitto.conf"
        configuration.write_text(
            f"listener {port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n"
            "persistence false\nlog_dest none\nuser root\n")
        return self.listening(["mosquitto", "-c", configuration], port)

    def board(self) -> Contestant:
        """A virtual board, and the environment of the program that is to see it."""
        board = VirtualBoard(self.binaries, tempfile.mkdtemp(dir=self.directory))
        self._started.callback(board.end)
        return {"board": board, "environment": board.environment}

    def board_server(self, log: Path | str | None = None) -> Contestant:
        board = self.board()
        port = free_port()
        server = self.listening([self.binaries / "GpioServer", f"--port={port}", "--ftdi"], port,
                                board["environment"], log or self.directory / f"board-{port}.log")
        return board | server | {"request": hexed("W011")}

    def bare_board(self, work: str, *more: object) -> Contestant:
        board = self.board()
        port = free_port()
        return board | self.listening([self.binaries / "bare-board", work, "--port", port,
                                       *more],
                                      port, board["environment"]) | {"request": hexed("W011")}

    def waiter(self, work: str) -> Contestant:
        """A program that waits for input of a board of its own."""
        board = self.board()
        process = self.spawn([self.binaries / "bare-board", work], board["environment"])
        board["board"].command("wait pending-reads >= 1")
        return board | {"process": process}

    def bridge(self, port: int, message: str, hello: Sequence[str] = ()) -> Contestant:
        """Publishes the changes of a board on another server."""
        board = self.board()
        greetings = [word for text in hello for word in ("--hello", text)]
        self.spawn([self.binaries / "bare-board", "publish", "--port", port, "--message", message,
                    *greetings], board["environment"])
        board["board"].command("wait pending-reads >= 1")
        return board


def raise_limits() -> None:
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
