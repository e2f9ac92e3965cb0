"""Holds the unit's restart policy against a port that is taken for twenty minutes.

The server, its port and its exit statuses are real. systemd is played by the rules that its manual
gives for the keys of the unit, and its clock is simulated: a pause costs no time.
"""

from __future__ import annotations

import configparser
import dataclasses
import re
import socket
import subprocess
import unittest
from collections import deque
from typing import Callable, Optional

from support import PROGRAMS, SOURCE

UNIT = SOURCE / "packaging/systemd/gpio-server.service.in"
SERVER = PROGRAMS / "GpioServer"

MINUTE = 60.0
DAY = 24 * 60 * MINUTE
PATIENCE = 60  # Real seconds for anything that a process does.
NO_BACK_END = 255

# What systemd 252 itself writes about each automatic start: starting, started, deactivated,
# restart scheduled, stopped.
SYSTEMD_LINES_PER_START = 5
MOST_LINES_PER_DAY = 30_000


def seconds(text: str) -> float:
    """A time span of a unit, such as "30", "10min" or "1min 30s"."""
    units = {"": 1.0, "s": 1.0, "ms": 0.001, "min": MINUTE, "h": 60 * MINUTE}
    if not re.fullmatch(r"(\s*\d+\s*(ms|min|s|h)?)+", text):
        raise ValueError(f"not a time span: {text}")
    return sum(int(n) * units[u] for n, u in re.findall(r"(\d+)\s*(ms|min|s|h)?", text))


@dataclasses.dataclass
class RestartPolicy:
    """The keys of a unit that decide whether and when the service starts again."""

    restart: str
    pause: float
    limit_interval: float
    limit_burst: int
    final_statuses: frozenset[int]

    @staticmethod
    def of(unit: str) -> "RestartPolicy":
        # A key may stand several times in a unit; these may not, and the last one counts.
        parser = configparser.ConfigParser(strict=False, interpolation=None)
        parser.optionxform = str  # type: ignore[assignment,method-assign]
        parser.read_string(unit)
        service, head = parser["Service"], parser["Unit"]
        return RestartPolicy(
            restart=service.get("Restart", "no"),
            pause=seconds(service.get("RestartSec", "100ms")),
            limit_interval=seconds(head.get("StartLimitIntervalSec", "10s")),
            limit_burst=int(head.get("StartLimitBurst", "5")),
            final_statuses=frozenset(
                int(status) for status in service.get("RestartPreventExitStatus", "").split()
            ),
        )

    def restarts_after(self, status: int) -> bool:
        if status in self.final_statuses:
            return False
        return self.restart == "always" or (self.restart == "on-failure" and status != 0)


class Supervisor:
    """Plays systemd for one service. `start` runs it to its end: its status, None if it serves."""

    def __init__(self, policy: RestartPolicy, start: Callable[[float], Optional[int]]) -> None:
        self.policy = policy
        self.start = start
        self.now = 0.0
        self.starts = 0
        self.recent: deque[float] = deque()

    def _may_start(self) -> bool:
        if self.policy.limit_interval == 0 or self.policy.limit_burst == 0:
            return True
        while self.recent and self.recent[0] <= self.now - self.policy.limit_interval:
            self.recent.popleft()
        self.recent.append(self.now)
        return len(self.recent) <= self.policy.limit_burst

    def run(self, until: float) -> str:
        """"serving", "given up", or "trying" when the clock got to `until` before either."""
        while self.now <= until:
            if not self._may_start():
                return "given up"
            self.starts += 1
            status = self.start(self.now)
            if status is None:
                return "serving"
            if not self.policy.restarts_after(status):
                return "given up"
            self.now += self.policy.pause
        return "trying"


class RestartPolicyTest(unittest.TestCase):
    def setUp(self) -> None:
        self.policy = RestartPolicy.of(UNIT.read_text(encoding="utf-8"))
        self.lines = 0
        self.occupant = socket.socket()
        self.addCleanup(self.occupant.close)
        self.occupant.bind(("", 0))
        self.occupant.listen()
        self.port = self.occupant.getsockname()[1]

    def _run_to_its_end(self, *options: str) -> int:
        end = subprocess.run(
            [SERVER, f"--port={self.port}", *options],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            timeout=PATIENCE,
            check=False,
        )
        self.lines += end.stdout.count(b"\n")
        return end.returncode

    def _answer(self) -> bytes:
        """Starts the server, asks it for a level, ends it."""
        process = subprocess.Popen(
            [SERVER, f"--port={self.port}", "--test"], stdout=subprocess.PIPE, text=True
        )
        try:
            assert process.stdout is not None
            if not any("Launch was successful" in line for line in process.stdout):
                return b""
            with socket.create_connection(("127.0.0.1", self.port), timeout=PATIENCE) as client:
                client.sendall(b"R9Z")
                return client.recv(1)
        finally:
            process.kill()
            process.communicate()

    def test_a_port_that_is_freed_after_twenty_minutes_is_served(self) -> None:
        freed_at = 20 * MINUTE
        answers = []

        def start(now: float) -> Optional[int]:
            if now < freed_at:
                return self._run_to_its_end("--test")
            self.occupant.close()
            answers.append(self._answer())
            return None

        service = Supervisor(self.policy, start)
        self.assertEqual(service.run(until=21 * MINUTE), "serving")
        self.assertEqual(answers, [b"R"])
        self.assertGreater(service.starts, 1)

    def test_a_service_that_fails_for_a_year_is_still_tried(self) -> None:
        service = Supervisor(self.policy, lambda now: 0)
        self.assertEqual(service.run(until=365 * DAY), "trying")

    def test_a_port_that_stays_taken_leaves_the_journal_room(self) -> None:
        self.assertEqual(self._run_to_its_end("--test"), 0)
        self.assertGreater(self.lines, 0)
        a_day = Supervisor(self.policy, lambda now: 0)
        a_day.run(until=DAY)
        lines = a_day.starts * (self.lines + SYSTEMD_LINES_PER_START)
        self.assertLess(lines, MOST_LINES_PER_DAY)

    def test_options_without_back_end_are_not_retried(self) -> None:
        service = Supervisor(self.policy, lambda now: self._run_to_its_end())
        self.assertEqual(service.run(until=DAY), "given up")
        self.assertEqual(service.starts, 1)

    def test_a_limit_on_starts_would_be_noticed(self) -> None:
        limited = dataclasses.replace(
            self.policy, pause=5.0, limit_interval=10 * MINUTE, limit_burst=60
        )
        service = Supervisor(limited, lambda now: 0)
        self.assertEqual(service.run(until=20 * MINUTE), "given up")
        self.assertEqual((service.starts, service.now), (60, 5 * MINUTE))


if __name__ == "__main__":
    unittest.main()
