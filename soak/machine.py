"""The server of a soak as a process, and the thread that drives its board."""

from __future__ import annotations

import os
import subprocess
import threading
import time

from board import VirtualBoard, memory
from world import World

READY_PATIENCE = 240.0

SUPPRESSIONS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../cmake/tsan.supp")

# All else that the server logs is too much to read along; what is no log line is a report of a
# sanitizer or the like.
WANTED = (r"Device is ready for actual use|sending one reset|Something when wrong"
          r"|Failed to accept|Closing server-socket|^[^[]")


def links(directory: str) -> list[str]:
    """Where the symbolic links lead, without those that just went away."""
    found = []
    for name in os.listdir(directory):
        try:
            found.append(os.readlink(f"{directory}/{name}"))
        except FileNotFoundError:
            pass
    return found


class Server:
    def __init__(self, binaries: str, environment: dict[str, str], port: int) -> None:
        self.ready = 0
        self.resets = 0
        self.accept_failures = 0
        self.strange: list[str] = []
        self.changed = threading.Condition()
        options = f"halt_on_error=0:suppressions={SUPPRESSIONS}"
        # Python ignores the broken-pipe signal, and so does the server then.
        self.process = subprocess.Popen(
            [f"{binaries}/GpioServer", "--ftdi", f"--port={port}"],
            env={**os.environ, **environment, "TSAN_OPTIONS": options}, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, restore_signals=False)
        self.filter = subprocess.Popen(
            ["grep", "--line-buffered", "--text", "-E", WANTED], stdin=self.process.stdout,
            stdout=subprocess.PIPE, text=True, errors="replace")
        assert self.process.stdout
        self.process.stdout.close()
        threading.Thread(target=self._read_log, daemon=True).start()

    def _read_log(self) -> None:
        assert self.filter.stdout
        for line in self.filter.stdout:
            with self.changed:
                if "ready for actual use" in line:
                    self.ready += 1
                elif "sending one reset" in line:
                    self.resets += 1
                elif "Failed to accept" in line:
                    self.accept_failures += 1
                elif "Closing server-socket" not in line:
                    self.strange.append(line.rstrip())
                self.changed.notify_all()

    def wait_until_ready(self, times: int, stop: threading.Event) -> bool:
        """Whether the board was reported ready that many times, before patience or soak end."""
        deadline = time.monotonic() + READY_PATIENCE
        with self.changed:
            while self.ready < times and time.monotonic() < deadline and not stop.is_set():
                self.changed.wait(0.5)
            return self.ready >= times

    def is_running(self) -> bool:
        return self.process.poll() is None

    def figures(self) -> dict[str, int]:
        """Descriptors, threads, and kilobytes resident and proportional. Pipes are not counted: the
        server makes none, while a sanitizer keeps a pair to its symbolizer."""
        root = f"/proc/{self.process.pid}"
        sizes = memory(self.process.pid)
        return {
            "descriptors": sum(1 for link in links(f"{root}/fd") if not link.startswith("pipe:")),
            "threads": len(os.listdir(f"{root}/task")),
            "resident": sizes["Rss"],
            "proportional": sizes["Pss"],
        }

    def end(self) -> None:
        self.process.terminate()
        self.process.wait()
        self.filter.wait()


class BoardDriver(threading.Thread):
    """Changes the inputs, pulls the board out once it was reported ready and puts it back."""

    def __init__(self, world: World, board: VirtualBoard, server: Server) -> None:
        super().__init__(name="board", daemon=True)
        self.world = world
        self.board = board
        self.server = server
        self.random = world.random("board")
        self.rounds = 1  # how often the board was put in

    def run(self) -> None:
        while not self.world.stop.is_set():
            self.change_inputs(self.random.uniform(3, 45))
            if self.world.stop.is_set():
                return
            self.lose_board()
            self.rounds += 1
            if self.server.wait_until_ready(self.rounds, self.world.stop):
                self.world.board_ready()
                self.world.count("rounds of loss")
            elif not self.world.stop.is_set():
                self.world.finding("the board came back but was not ready in time")
                return

    def change_inputs(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while time.monotonic() < end and not self.world.stop.is_set():
            if self.random.random() < 0.03:
                self.flood()
            else:
                state = (self.random.randrange(256), self.random.randrange(256))
                self.world.set_inputs([state])
                self.board.command(f"inputs {state[0]:02x} {state[1]:02x}")
                self.world.count("changes at the board")
            self.world.stop.wait(self.random.uniform(0.02, 0.4))

    def flood(self) -> None:
        rate, number = 500, self.random.randint(50, 1000)
        states = [(n >> 8, n & 0xFF) for n in range(number + 1)]
        seconds = 2 * number / rate + 5
        self.world.set_inputs(states, seconds)
        self.board.command(f"flood {rate} {number}")
        self.world.count("changes at the board", number)
        self.world.stop.wait(number / rate + 1)
        self.board.command("flood off")

    def lose_board(self) -> None:
        self.world.board_lost()
        self.board.command("unplug")
        self.world.stop.wait(self.random.choice((0.1, 0.5, 1.0, 2.0, 5.0)))
        self.board.command("log clear")
        self.board.command("plug")
