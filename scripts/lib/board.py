"""A virtual board and what goes with it, for soak, bench and the tests in Python."""

from __future__ import annotations

import os
import re
import socket
import subprocess
import time
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import TypeVar

T = TypeVar("T")


def eventually(condition: Callable[[], T], limit: float = 30.0, pause: float = 0.005) -> T:
    """Waits until condition() is true; returns what it gave last."""
    deadline = time.monotonic() + limit
    while True:
        result = condition()
        if result or time.monotonic() > deadline:
            return result
        time.sleep(pause)


def when_possible(action: Callable[[], T], is_alive: Callable[[], bool] = lambda: True,
                  limit: float = 30.0, pause: float = 0.005) -> T:
    """What action() returns once it raises no OSError, for which whoever it asks has to live."""
    deadline = time.monotonic() + limit
    while True:
        try:
            return action()
        except OSError:
            if time.monotonic() > deadline or not is_alive():
                raise
        time.sleep(pause)


def memory(process: int) -> dict[str, int]:
    """Kilobytes of the process with this id, by the names of smaps_rollup such as Rss and Pss."""
    with open(f"/proc/{process}/smaps_rollup", encoding="ascii") as rollup:
        sizes = re.findall(r"^(\w+): +(\d+) kB", rollup.read(), re.M)
    return {name: int(size) for name, size in sizes}


def processor_seconds(process: int) -> float:
    """Of all its threads, ended ones excepted, by the scheduler's own nanosecond count."""
    return sum(int((task / "schedstat").read_text(encoding="ascii").split()[0])
               for task in Path(f"/proc/{process}/task").iterdir()) / 1e9


def reserved_port() -> tuple[socket.socket, int]:
    """A socket that keeps a port for those who may use an address again, and that port."""
    reserved = socket.socket()
    reserved.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    reserved.bind(("127.0.0.1", 0))
    return reserved, reserved.getsockname()[1]


def free_port() -> int:
    reserved, port = reserved_port()
    reserved.close()
    return port


def listens(port: int) -> bool:
    """Whether connecting works, found out without connecting."""
    local = f":{port:04X} "
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(f"{fields[1]} ".endswith(local) and fields[3] == "0A"
                   for fields in map(str.split, table))


class VirtualBoard:
    """A board in a directory of its own; ends with this process at the latest."""

    def __init__(self, binaries: Path | str, directory: Path | str,
                 options: Sequence[str] = ()) -> None:
        self.control = f"{directory}/control"
        self.environment = {"LD_PRELOAD": os.path.abspath(f"{binaries}/libvirtual-usb.so"),
                            "VIRTUAL_USB_DIRECTORY": str(directory)}
        self.process = subprocess.Popen(
            [f"{binaries}/virtual-board", "--directory", directory, "--until-end-of-input",
             *options], stdin=subprocess.PIPE)
        when_possible(lambda: self.command("stats plugged"), lambda: self.process.poll() is None)

    def command(self, text: str) -> str:
        """Carries out one command and returns its answer without the leading ok."""
        with socket.socket(socket.AF_UNIX) as control:
            control.settimeout(60)
            control.connect(self.control)
            control.sendall(text.encode() + b"\n")
            answer = control.makefile().readline()
        if not answer.startswith("ok"):
            raise RuntimeError(f"{text}: {answer}")
        return answer[3:].strip()

    def end(self) -> None:
        self.process.communicate()
