"""Many servers and bridges on one broker: how long until all are online, how fast, how large."""

from __future__ import annotations

import argparse
import random
import resource
import statistics
import sys
import threading
import time
from dataclasses import dataclass
from pathlib import Path

import paho.mqtt.client as mqtt
import svg
from board import memory
from harness import Bridge, Mosquitto, Observer, Server, eventually

LATENCY_CHANGES = 400
THROUGHPUT_SECONDS = 5.0
WIDTH, HEIGHT = 900, 330
LEFT, TOP, PANEL_WIDTH, PANEL_HEIGHT, GAP = 80, 70, 200, 180, 80


@dataclass
class Figures:
    boards: int
    online_s: float
    changes_per_s: float
    median_ms: float
    p99_ms: float
    bridge_kib: float

    def line(self) -> str:
        return (
            f"{self.boards:4d} boards: all online after {self.online_s:.2f} s, "
            f"{self.changes_per_s:.0f} commands/s to their states, pin to subscriber "
            f"median {self.median_ms:.1f} ms, 99 % {self.p99_ms:.1f} ms, "
            f"bridge {self.bridge_kib / 1024:.1f} MiB"
        )


class Fleet:
    def __init__(self, boards: int) -> None:
        self.boards = boards
        self.names = [f"board{number}" for number in range(boards)]
        self.broker = Mosquitto(("allow_anonymous true", "max_queued_messages 0"))
        self.observer = Observer(self.broker.port, topics="gpio/#")
        self.servers: list[Server] = []
        self.bridges: list[Bridge] = []

    def start(self) -> float:
        """Seconds from the start of the first bridge until the last one is online."""
        self.servers = [Server() for _ in self.names]
        begin = time.monotonic()
        for server, name in zip(self.servers, self.names):
            self.bridges.append(Bridge(server.address, self.broker, identity=name, scale=1))
        if not eventually(lambda: self.online() == set(self.names), 300):
            missing = sorted(set(self.names) - self.online())
            raise RuntimeError(f"not online: {missing}")
        return time.monotonic() - begin

    def online(self) -> set[str]:
        return {
            m.topic.split("/")[1]
            for m in self.observer.seen()
            if m.topic.endswith("/bridge") and m.payload == "online"
        }

    def latencies(self) -> list[float]:
        """Milliseconds from the write to a pin at its server to the state at a subscriber."""
        result = []
        chance = random.Random(1)
        levels: dict[int, int] = {}
        for _ in range(LATENCY_CHANGES):
            board = chance.randrange(self.boards)
            level = 1 - levels.get(board, 0)
            levels[board] = level
            topic, payload = f"gpio/{self.names[board]}/5/state", "ON" if level else "OFF"
            self.observer.clear()
            begin = time.monotonic()
            self.servers[board].send(f"W5{level}")
            if not self.observer.wait_for(topic, payload):
                raise RuntimeError(f"{topic} never became {payload}")
            result.append((self.observer.seen(topic)[-1].time - begin) * 1000)
            # Else every change would come at the same time after a reading of all pins.
            time.sleep(chance.uniform(0, 0.1))
        return result

    def changes_per_second(self) -> float:
        """Commands through the broker to their states, one under way at each board."""
        count = 0
        lock = threading.Lock()
        done = threading.Event()

        def on_message(client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
            nonlocal count
            with lock:
                count += 1
            if not done.is_set():
                payload = "OFF" if message.payload == b"ON" else "ON"
                client.publish(message.topic[: -len("state")] + "set", payload, 1)

        driver = Observer(self.broker.port, topics="gpio/+/7/state")
        driver._client.on_message = on_message
        for name in self.names:
            driver.publish(f"gpio/{name}/7/set", "ON", waits=False)
        time.sleep(1)
        with lock:
            before = count
        time.sleep(THROUGHPUT_SECONDS)
        with lock:
            after = count
        done.set()
        driver.close()
        return (after - before) / THROUGHPUT_SECONDS

    def memory(self) -> float:
        return statistics.mean(memory(bridge.pid)["Pss"] for bridge in self.bridges)

    def close(self) -> None:
        self.observer.close()
        for bridge in self.bridges:
            bridge.send_signal(15)
        for thing in self.bridges:
            thing.end()
        for server in self.servers:
            server.close()
        self.broker.close()


def measure(boards: int) -> Figures:
    fleet = Fleet(boards)
    try:
        online = fleet.start()
        latencies = sorted(fleet.latencies())
        rate = fleet.changes_per_second()
        memory = fleet.memory()
    finally:
        fleet.close()
    p99 = latencies[int(len(latencies) * 0.99)]
    return Figures(boards, online, rate, statistics.median(latencies), p99, memory)


def panel(left: float, title: str, results: list[Figures], values: list[float]) -> list[str]:
    """One bar for each size of the fleet."""
    parts = [svg.text(left, TOP - 12, title, "start", 'font-weight="bold"')]
    bottom = TOP + PANEL_HEIGHT
    parts.append(svg.line(left, bottom, left + PANEL_WIDTH, bottom, "#888"))
    highest = max(values)
    step = PANEL_WIDTH / len(values)
    for number, (figures, value) in enumerate(zip(results, values)):
        x = left + step * (number + 0.5)
        height = (PANEL_HEIGHT - 20) * value / highest
        parts.append(
            svg.line(x, bottom, x, bottom - height, "#1f6fb4", f'stroke-width="{step / 2:.0f}"')
        )
        parts.append(svg.text(x, bottom - height - 6, f"{value:.3g}"))
        parts.append(svg.text(x, bottom + 18, str(figures.boards)))
    return parts


def draw(path: str, results: list[Figures]) -> None:
    panels = [
        ("all online [s]", [f.online_s for f in results]),
        ("commands to states [1/s]", [f.changes_per_s for f in results]),
        ("pin to subscriber, median [ms]", [f.median_ms for f in results]),
    ]
    parts: list[str] = []
    for number, (title, values) in enumerate(panels):
        parts += panel(LEFT + number * (PANEL_WIDTH + GAP), title, results, values)
    memory = ", ".join(f"{f.bridge_kib / 1024:.1f}" for f in results)
    parts.append(
        svg.text(LEFT, HEIGHT - 24, f"boards on one broker; MiB a bridge: {memory}", "start")
    )
    text = svg.document(WIDTH, HEIGHT, "A fleet of bridges on one mosquitto", parts)
    Path(path).write_text(text, encoding="utf-8")


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("boards", type=int, nargs="+")
    parser.add_argument("--picture")
    arguments = parser.parse_args()
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    results = []
    for boards in arguments.boards:
        results.append(measure(boards))
        print(results[-1].line())
        sys.stdout.flush()
    if arguments.picture:
        draw(arguments.picture, results)


if __name__ == "__main__":
    main()
