"""Real parts for the tests of gpio-mqtt: mosquitto, servers, virtual boards, bridges, a client."""

from __future__ import annotations

import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from collections.abc import Sequence
from pathlib import Path

import paho.mqtt.client as mqtt

sys.path.append(str(Path(__file__).resolve().parents[1] / "python"))
import support
from support import PROGRAMS, eventually, listens, reserved_port

PATIENCE = support.LIMIT
TIME_SCALE = 0.2


class Process(support.Process):
    """A program that meets broken pipes by itself, and is asked to end before it is made to."""

    def __init__(self, *command: object, environment: dict[str, str] | None = None) -> None:
        super().__init__(*command, environment=environment, ignores_broken_pipes=False)
        self.send_signal = self.process.send_signal

    def wait_for_log(self, text: str, count: int = 1, limit: float = PATIENCE) -> bool:
        return eventually(lambda: self.text().count(text) >= count, limit)

    def wait(self, limit: float = PATIENCE) -> int:
        return self.process.wait(limit)

    def end(self, number: int = signal.SIGTERM) -> None:
        if self.process.poll() is None:
            self.send_signal(number)
            self.resume()
            try:
                self.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


class Mosquitto:
    """A broker on a port of its own that survives its restarts."""

    def __init__(
        self, lines: Sequence[str] = ("allow_anonymous true",), listener: str = ""
    ) -> None:
        self._reserved, self.port = reserved_port()
        self._directory = Path(tempfile.mkdtemp(prefix="mosquitto-"))
        # Root's mosquitto becomes another user before it reads the files it is given.
        self._directory.chmod(0o755)
        self._lines = list(lines)
        self._listener = listener
        self._process: Process | None = None
        self.start()

    def file(self, name: str, text: str) -> str:
        path = self._directory / name
        path.write_text(text, encoding="utf-8")
        return str(path)

    def start(self) -> None:
        configuration = [f"listener {self.port} 127.0.0.1", self._listener, *self._lines]
        path = self.file("mosquitto.conf", "\n".join(configuration) + "\n")
        if self._process:
            self._process.close()
        self._process = Process(shutil.which("mosquitto") or "/usr/sbin/mosquitto", "-c", path)
        if not eventually(lambda: listens(self.port)):
            raise RuntimeError("mosquitto does not start: " + self._process.text())

    def wait_for_log(self, text: str) -> bool:
        assert self._process
        return self._process.wait_for_log(text)

    def pause(self) -> None:
        assert self._process
        self._process.pause()

    def resume(self) -> None:
        assert self._process
        self._process.resume()

    def stop(self, number: int = signal.SIGTERM) -> None:
        assert self._process
        self._process.end(number)

    def close(self) -> None:
        assert self._process
        self._process.close()
        self._reserved.close()
        shutil.rmtree(self._directory, ignore_errors=True)


class Asked:
    """A server that somebody else sends a command to."""

    port: int

    def send(self, command: str) -> str:
        """On a connection of its own; the answer without its line end."""
        with socket.create_connection(("127.0.0.1", self.port), 10) as client:
            client.sendall(command.encode())
            answer = ""
            while not re.fullmatch(r"\^.*\^|(.).*\1\n", answer):
                data = client.recv(100)
                if not data:
                    break
                answer += data.decode()
            client.shutdown(socket.SHUT_WR)
            while client.recv(100):
                pass
            return answer.rstrip("\n")


class Server(support.Server, Asked):
    """A GpioServer in test mode."""


class BoardServer(support.BoardServer, Asked):
    """A GpioServer on a virtual board."""


class Bridge(Process):
    """A gpio-mqtt between a server and a broker."""

    def __init__(
        self,
        server: str,
        broker: Mosquitto | str,
        *arguments: str,
        identity: str = "lab1",
        scale: float = TIME_SCALE,
        environment: dict[str, str] | None = None,
    ) -> None:
        address = broker if isinstance(broker, str) else f"127.0.0.1:{broker.port}"
        super().__init__(
            PROGRAMS / "gpio-mqtt",
            *("--id", identity, "--server", server, "--broker", address, *arguments),
            environment={"GPIO_MQTT_TIME_SCALE": str(scale), **(environment or {})},
        )

    def end(self, number: int = signal.SIGTERM) -> None:
        super().end(number)
        if "Sanitizer" in self.text():
            raise AssertionError(self.text())


class Message:
    def __init__(self, topic: str, payload: str, retained: bool) -> None:
        self.topic = topic
        self.payload = payload
        self.retained = retained
        self.time = time.monotonic()

    def __repr__(self) -> str:
        return f"{self.topic} {self.payload[:200]}{' (retained)' if self.retained else ''}"


class Observer:
    """A client that sees everything that goes through the broker."""

    def __init__(
        self, port: int, username: str = "", password: str = "", topics: str = "#", qos: int = 1
    ) -> None:
        self.messages: list[Message] = []
        self._lock = threading.Lock()
        self._subscribed = threading.Event()
        self._client = mqtt.Client()
        if username:
            self._client.username_pw_set(username, password)
        self._client.max_inflight_messages_set(1000)
        self._client.on_message = self._on_message
        self._client.on_connect = lambda client, *_: client.subscribe(topics, qos)
        self._client.on_subscribe = lambda *_: self._subscribed.set()
        self._client.reconnect_delay_set(1, 1)
        self._client.connect("127.0.0.1", port, keepalive=300)
        self._client.loop_start()
        if not self._subscribed.wait(PATIENCE):
            raise RuntimeError("the observer is not let in")

    def _on_message(self, _client: object, _data: object, message: mqtt.MQTTMessage) -> None:
        payload = message.payload.decode("utf-8", "replace")
        with self._lock:
            self.messages.append(Message(message.topic, payload, bool(message.retain)))

    def seen(self, topic: str = "") -> list[Message]:
        with self._lock:
            return [m for m in self.messages if not topic or m.topic == topic]

    def payloads(self, topic: str) -> list[str]:
        return [m.payload for m in self.seen(topic)]

    def clear(self) -> None:
        with self._lock:
            self.messages.clear()

    def newest(self, topic: str) -> str | None:
        seen = self.seen(topic)
        return seen[-1].payload if seen else None

    def wait_for(self, topic: str, payload: str, limit: float = PATIENCE) -> bool:
        return eventually(lambda: self.newest(topic) == payload, limit)

    def publish(
        self, topic: str, payload: str | bytes, retain: bool = False, waits: bool = True
    ) -> None:
        sent = self._client.publish(topic, payload, 1, retain)
        if waits:
            sent.wait_for_publish(PATIENCE)

    def switches_on(self, topic: str) -> bool:
        """After a flood, of which the broker drops what exceeds its own queue for a slow bridge."""

        def is_on() -> bool:
            self.publish(f"{topic}/set", "ON")
            return self.newest(f"{topic}/state") == "ON"

        return eventually(is_on)

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()


def retained(port: int) -> dict[str, str]:
    """Everything that the broker retains."""
    # Without acknowledgement, so that the broker's limits for what waits do not count.
    observer = Observer(port, qos=0)
    # The broker answers in order: what is published now comes behind what is retained.
    observer.publish("end-of-retained", "")
    eventually(lambda: bool(observer.seen("end-of-retained")))
    observer.close()
    return {m.topic: m.payload for m in observer.seen() if m.retained}


class TestCase(unittest.TestCase):
    """Closes what it starts, and shows the logs of a test that fails."""

    def keep(self, thing):
        self.addCleanup(thing.close if hasattr(thing, "close") else thing.end)
        return thing

    def start_broker(self, *lines: str, listener: str = "") -> Mosquitto:
        return self.keep(Mosquitto(lines or ("allow_anonymous true",), listener))

    def start_bridge(self, server: str, broker: Mosquitto | str, *arguments: str, **how) -> Bridge:
        return self.keep(Bridge(server, broker, *arguments, **how))

    def assert_told(self, observer: Observer, topic: str, payload: str, bridge: Process) -> None:
        if not observer.wait_for(topic, payload):
            self.fail(
                f"{topic} never became {payload!r}, but {observer.payloads(topic)}; "
                f"the bridge says:\n{bridge.text()}"
            )

    def assert_logged(self, bridge: Process, text: str, count: int = 1) -> None:
        if not bridge.wait_for_log(text, count):
            self.fail(f"no {text!r} in the log of the bridge:\n{bridge.text()}")


class ObservedTestCase(TestCase):
    """On a broker, a server in test mode, and an observer that sees what a bridge tells."""

    def setUp(self) -> None:
        super().setUp()
        self.broker = self.start_broker()
        self.server = self.keep(Server())
        self.observer = self.keep(Observer(self.broker.port))

    def start(self, *arguments: str, **how):
        """Starts a bridge, whose messages are all that the observer has afterwards."""
        self.observer.clear()
        bridge = self.start_bridge(self.server.address, self.broker, *arguments, **how)
        self.assert_told(self.observer, "gpio/lab1/bridge", "online", bridge)
        return bridge
