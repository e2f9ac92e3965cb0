"""What the threads of a soak share: the clock of losses, the states of the inputs, the findings."""

from __future__ import annotations

import collections
import random
import threading
import time
from collections.abc import Sequence

# The server drops its clients, polls the board and listens again within this time of a loss.
SETTLING = 7.0

# Clients that do not read hold a change up for two seconds, all together; the rest is for a machine
# that has other work.
LATENESS = 30.0


class World:
    def __init__(self, seed: int, port: int) -> None:
        self.seed = seed
        self.port = port
        self.stop = threading.Event()
        self.counts: collections.Counter[str] = collections.Counter()
        self.findings: list[str] = []
        self._lock = threading.Lock()
        self._losses: list[list[float]] = []
        self._states = {(0, 0): float("inf")}

    def random(self, name: str) -> random.Random:
        return random.Random(f"{self.seed}/{name}")

    def count(self, what: str, number: int = 1) -> None:
        with self._lock:
            self.counts[what] += number

    def finding(self, text: str) -> None:
        with self._lock:
            self.counts["wrong answers"] += 1
            self.findings.append(f"{time.strftime('%H:%M:%S')} {text}")
        print(f"WRONG: {text}", flush=True)

    def board_lost(self) -> None:
        with self._lock:
            self._losses.append([time.monotonic(), float("inf")])

    def board_ready(self) -> None:
        with self._lock:
            if self._losses and self._losses[-1][1] == float("inf"):
                self._losses[-1][1] = time.monotonic()

    def lost_since(self, begin: float) -> bool:
        """Whether a loss, or the settling after one, touches the time from begin until now."""
        with self._lock:
            return any(end + SETTLING >= begin for _, end in self._losses)

    def set_inputs(self, states: Sequence[tuple[int, int]], seconds: float = 0.0) -> None:
        """From now on the board shows one state after the other, the last one for good."""
        now = time.monotonic()
        with self._lock:
            for state, end in self._states.items():
                self._states[state] = min(end, now + seconds)
            for state in states[:-1]:
                self._states[state] = max(self._states.get(state, 0), now + seconds)
            self._states[states[-1]] = float("inf")

    def may_see(self, state: tuple[int, int], begin: float) -> bool:
        """Whether a client that asked at begin may be told this state of the inputs."""
        with self._lock:
            earliest = begin - LATENESS
            for start, end in self._losses:
                if end + SETTLING >= earliest:
                    earliest = min(earliest, start - LATENESS)
            return self._states.get(state, 0) >= earliest
