"""gpio-web on a real server, and HTTP spoken by hand, byte by byte."""

from __future__ import annotations

import base64
import json
import os
import re
import signal
import socket
import time
from collections.abc import Callable, Mapping
from typing import Any, TypeVar

from support import LIMIT, PROGRAMS, Process, eventually

JSON_PUT = {"Content-Type": "application/json", "X-Gpio": "1"}

Self = TypeVar("Self")


class Answer:
    def __init__(self, status: int, fields: dict[str, str], body: bytes) -> None:
        self.status = status
        self.fields = fields  # Names in lower case.
        self.body = body

    def json(self) -> Any:
        return json.loads(self.body)

    def error(self) -> str:
        return self.json()["error"]


class Connection:
    """One connection to the bridge; answers are read by the rules of HTTP."""

    def __init__(self, port: int, receive_buffer: int | None = None) -> None:
        self.socket = socket.socket()
        self.socket.settimeout(LIMIT)
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.connect(("127.0.0.1", port))
        self.file = self.socket.makefile("rb")

    def send(self, data: bytes | str) -> None:
        self.socket.sendall(data if isinstance(data, bytes) else data.encode())

    def head(self) -> tuple[int, dict[str, str]]:
        line = self.file.readline()
        if not line:
            raise EOFError("the connection has ended")
        status = int(line.split()[1])
        fields = {}
        while (line := self.file.readline().strip()) != b"":
            name, value = line.decode().split(":", 1)
            fields[name.lower()] = value.strip()
        return status, fields

    def answer(self, method: str = "GET") -> Answer:
        status, fields = self.head()
        size = 0 if method == "HEAD" else int(fields.get("content-length", 0))
        return Answer(status, fields, self.file.read(size))

    def is_closed(self) -> bool:
        """Waits for the end of the connection; whether it came without a further byte."""
        try:
            return self.file.read(1) == b""
        except ConnectionError:
            return True

    def close(self) -> None:
        self.file.close()
        self.socket.close()

    def __enter__(self: Self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Events(Connection):
    """A stream of events."""

    def __init__(self, port: int, receive_buffer: int | None = None) -> None:
        super().__init__(port, receive_buffer)
        self.send("GET /api/v1/events HTTP/1.1\r\nHost: localhost\r\n\r\n")
        self.status, self.fields = self.head()

    def next(self) -> tuple[str | None, Any]:
        """The next event as (name, data), or (":", None) for a comment."""
        name = None
        while True:
            line = self.file.readline().decode()
            if not line:
                raise EOFError("the stream has ended")
            if line.startswith(":"):
                return ":", None
            if line.startswith("event: "):
                name = line[7:].strip()
            if line.startswith("data: "):
                return name, json.loads(line[6:])

    def until(self, name: str, condition: Callable[[Any], bool] = lambda data: True) -> Any:
        """Skips to the next event of that name that fits."""
        while True:
            got, data = self.next()
            if got == name and condition(data):
                return data


class Bridge:
    """gpio-web in front of a server; a test fails when it does not end in order."""

    def __init__(
        self,
        server: str,
        *options: str,
        scale: float = 1.0,
        port: int = 0,
        environment: Mapping[str, str] | None = None,
    ) -> None:
        self.process = Process(
            PROGRAMS / "gpio-web",
            f"--server={server}",
            f"--listen=127.0.0.1:{port}",
            *options,
            environment={"GPIO_WEB_TIME_SCALE": str(scale), **(environment or {})},
        )
        found = eventually(lambda: re.search(r"http://127.0.0.1:(\d+)/\n", self.process.text()))
        if not found:
            raise RuntimeError("gpio-web does not listen:\n" + self.process.text())
        self.port = int(found[1])
        self.url = f"http://127.0.0.1:{self.port}"

    def connect(self) -> Connection:
        return Connection(self.port)

    def ask(
        self,
        method: str,
        path: str,
        fields: Mapping[str, str | None] | None = None,
        body: bytes | str | None = None,
    ) -> Answer:
        """One request on a connection of its own. A field of the value None is left out."""
        data = None if body is None else body if isinstance(body, bytes) else body.encode()
        all_fields: dict[str, str | None] = {
            "Host": f"127.0.0.1:{self.port}",
            "Connection": "close",
            **(fields or {}),
        }
        if data is not None:
            all_fields.setdefault("Content-Length", str(len(data)))
        head = "".join(
            f"{name}: {value}\r\n" for name, value in all_fields.items() if value is not None
        )
        with self.connect() as connection:
            connection.send(f"{method} {path} HTTP/1.1\r\n{head}\r\n".encode() + (data or b""))
            return connection.answer(method)

    def get(self, path: str, **fields: str) -> Answer:
        return self.ask(
            "GET", path, {name.replace("_", "-"): value for name, value in fields.items()}
        )

    def pins(self) -> Any:
        return self.get("/api/v1/pins").json()

    def level(self, pin: int) -> int | None:
        return self.pins()["pins"][pin]["level"]

    def put(
        self,
        pin: int | str,
        body: bytes | str,
        fields: Mapping[str, str | None] | None = None,
    ) -> Answer:
        return self.ask("PUT", f"/api/v1/pins/{pin}", {**JSON_PUT, **(fields or {})}, body)

    def is_up(self) -> bool:
        return self.get("/healthz").status == 200

    def wait_until_up(self) -> Bridge:
        if not eventually(self.is_up):
            raise RuntimeError("gpio-web does not reach its server:\n" + self.process.text())
        return self

    def memory(self) -> int:
        """Bytes that the process holds."""
        with open(f"/proc/{self.process.process.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def end(self) -> tuple[int, float]:
        """Asks it to end; returns its status and the seconds that it took."""
        began = time.monotonic()
        self.process.process.send_signal(signal.SIGTERM)
        return self.process.process.wait(LIMIT), time.monotonic() - began

    def close(self) -> None:
        status = self.process.process.poll()
        if status is None:
            status, _ = self.end()
        text = self.process.text()
        self.process.close()
        if status != 0 or "Sanitizer" in text:
            raise AssertionError(f"gpio-web ended with {status}:\n{text}")

    def __enter__(self) -> Bridge:
        return self.wait_until_up()

    def __exit__(self, *_: object) -> None:
        self.close()


def credentials(password: str, user: str = "gpio") -> dict[str, str]:
    return {"Authorization": "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()}
