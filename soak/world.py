"""What the threads of a soak share: the clock of losses, the states of the inputs, the findings."""

import collections
import random
import threading
import time

# The server drops its clients, polls the board and listens again within this time of a loss.
SETTLING = 7.0

# Clients that do not read hold a change up for two seconds, all together; the rest is for a machine
# that has other work.
LATENESS = 30.0


class World:
    def __init__(self, seed, port):
        self.seed = seed
        self.port = port
        self.stop = threading.Event()
        self.counts = collections.Counter()
        self.findings = []
        self._lock = threading.Lock()
        self._losses = []
        self._states = {(0, 0): float("inf")}

    def random(self, name):
        return random.Random(f"{self.seed}/{name}")

    def count(self, what, number=1):
        with self._lock:
            self.counts[what] += number

    def finding(self, text):
        with self._lock:
            self.counts["wrong answers"] += 1
            self.findings.append(f"{time.strftime('%H:%M:%S')} {text}")
        print(f"WRONG: {text}", flush=True)

    def board_lost(self):
        with self._lock:
            self._losses.append([time.monotonic(), None])

    def board_ready(self):
        with self._lock:
            if self._losses and self._losses[-1][1] is None:
                self._losses[-1][1] = time.monotonic()

    def lost_since(self, begin):
        """Whether a loss, or the settling after one, touches the time from begin until now."""
        with self._lock:
            return any(end is None or end + SETTLING >= begin for _, end in self._losses)

    def set_inputs(self, states, seconds=0.0):
        """From now on the board shows one state after the other, the last one for good."""
        now = time.monotonic()
        with self._lock:
            for state, end in self._states.items():
                self._states[state] = min(end, now + seconds)
            for state in states[:-1]:
                self._states[state] = max(self._states.get(state, 0), now + seconds)
            self._states[states[-1]] = float("inf")

    def may_see(self, state, begin):
        """Whether a client that asked at begin may be told this state of the inputs."""
        with self._lock:
            earliest = begin - LATENESS
            for start, end in self._losses:
                if end is None or end + SETTLING >= earliest:
                    earliest = min(earliest, start - LATENESS)
            return self._states.get(state, 0) >= earliest
