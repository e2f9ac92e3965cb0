"""Figures of one bridge on a virtual board, side by side in one run; see scripts/fleet --bridge."""

from __future__ import annotations

import os
import random
import signal
import statistics
import subprocess
import time

from board import processor_seconds
from harness import PROGRAMS, BoardServer, Bridge, Mosquitto, Observer, eventually

EDGES = 400
IDLE_SECONDS = 20.0
RESTARTS = 5


def arrival(observer: Observer, topic: str, count: int) -> float:
    """When the message with this number came."""
    if not eventually(lambda: len(observer.seen(topic)) >= count):
        raise RuntimeError(f"{topic} got {len(observer.seen(topic))} of {count} messages")
    return observer.seen(topic)[count - 1].time


def edges(board: BoardServer, observer: Observer, topics: list[str]) -> dict[str, list[float]]:
    """Milliseconds from an edge at the board to each of the topics."""
    result: dict[str, list[float]] = {topic: [] for topic in topics}
    before = {topic: len(observer.seen(topic)) for topic in topics}
    for number in range(1, EDGES + 1):
        begin = time.monotonic()
        board.inputs(*[13] * (number % 2))
        for topic in topics:
            came = arrival(observer, topic, before[topic] + number)
            result[topic].append((came - begin) * 1000)
        time.sleep(random.uniform(0.001, 0.01))
    return result


def latency(board: BoardServer, broker: Mosquitto) -> None:
    observer = Observer(broker.port)
    bridge = Bridge(board.address, broker, scale=1)
    pipe = subprocess.Popen(
        f"exec {PROGRAMS}/gpio-client monitor 13 --banner | exec mosquitto_pub -h 127.0.0.1 "
        f"-p {broker.port} -q 1 -t pipe -l",
        shell=True,
        start_new_session=True,
        env={**os.environ, "GPIO_SERVER": board.address},
    )
    try:
        eventually(lambda: bool(observer.seen("pipe")))
        observer.wait_for("gpio/lab1/bridge", "online")
        # Also the first notice of the server, which tells of every high input.
        board.inputs(13)
        time.sleep(1)
        board.inputs()
        time.sleep(1)
        figures = edges(board, observer, ["pipe", "gpio/lab1/13/state"])
    finally:
        os.killpg(pipe.pid, signal.SIGTERM)
        bridge.end()
        observer.close()
    medians = {topic: statistics.median(times) for topic, times in figures.items()}
    ours, theirs = medians["gpio/lab1/13/state"], medians["pipe"]
    print(
        f"edge to subscriber, median of {EDGES}: gpio-mqtt {ours:.2f} ms, "
        f"gpio-client | mosquitto_pub {theirs:.2f} ms, ratio {ours / theirs:.2f}"
    )


def idle(board: BoardServer, broker: Mosquitto) -> None:
    bridge = Bridge(board.address, broker, scale=1)
    bridge.wait_for_log("connected to the broker")
    time.sleep(2)
    before = processor_seconds(bridge.pid)
    time.sleep(IDLE_SECONDS)
    share = (processor_seconds(bridge.pid) - before) / IDLE_SECONDS
    bridge.end()
    print(f"idle on a board: {share * 100:.2f} % of a processor over {IDLE_SECONDS:.0f} s")


def restarts(board: BoardServer, broker: Mosquitto) -> None:
    """From the attempt that finds the broker back, which its log dates, to `online`."""
    bridge = Bridge(board.address, broker, scale=1)
    bridge.wait_for_log("connected to the broker")
    slowest = 0.0
    for number in range(RESTARTS):
        broker.stop()
        broker.start()
        bridge.wait_for_log("connected to the broker", number + 2)
        begin = time.monotonic()
        observer = Observer(broker.port)
        observer.wait_for("gpio/lab1/bridge", "online")
        slowest = max(slowest, time.monotonic() - begin)
        observer.close()
    bridge.end()
    print(f"online at most {slowest * 1000:.0f} ms after the broker let the bridge in again")


def main() -> None:
    board = BoardServer()
    broker = Mosquitto()
    try:
        for measure in (latency, idle, restarts):
            measure(board, broker)
    finally:
        board.close()
        broker.close()


if __name__ == "__main__":
    main()
