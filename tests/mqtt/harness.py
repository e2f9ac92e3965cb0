"""Real parts for the tests of gpio-mqtt: mosquitto, servers, virtual boards, bridges, a client.

The environment names the programs: PROGRAMS is the directory of this project's.
"""

from __future__ import annotations

import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
from collections.abc import Callable, Sequence
from pathlib import Path

import paho.mqtt.client as mqtt

PROGRAMS = Path(os.environ["PROGRAMS"])
PATIENCE = 30.0
TIME_SCALE = 0.2


def eventually(condition: Callable[[], bool], limit: float = PATIENCE) -> bool:
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return True


def free_port() -> int:
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Process:
    """A program whose standard error, and output, go to a file. Ends with the object."""

    def __init__(
        self,
        command: Sequence[str],
        environment: dict[str, str] | None = None,
        ignores_broken_pipes: bool = False,
    ) -> None:
        self._log = tempfile.NamedTemporaryFile(prefix="gpio-mqtt-test-")
        self._process = subprocess.Popen(
            list(command),
            stdin=subprocess.DEVNULL,
            stdout=self._log,
            stderr=self._log,
            env={**os.environ, **(environment or {})},
            # Python ignores that signal itself and would hand this on.
            restore_signals=not ignores_broken_pipes,
        )

    @property
    def pid(self) -> int:
        return self._process.pid

    def log(self) -> str:
        return Path(self._log.name).read_text(encoding="utf-8", errors="replace")

    def wait_for_log(self, text: str, count: int = 1, limit: float = PATIENCE) -> bool:
        return eventually(lambda: self.log().count(text) >= count, limit)

    def send_signal(self, number: int) -> None:
        self._process.send_signal(number)

    def wait(self, limit: float = PATIENCE) -> int:
        return self._process.wait(limit)

    def is_running(self) -> bool:
        return self._process.poll() is None

    def end(self, number: int = signal.SIGTERM) -> None:
        if self._process.poll() is None:
            self._process.send_signal(number)
            self._process.send_signal(signal.SIGCONT)
            try:
                self._process.wait(10)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()


class Mosquitto:
    """A broker on a port of its own that survives its restarts."""

    def __init__(self, lines: Sequence[str] = ("allow_anonymous true",), listener: str = "") -> None:
        self.port = free_port()
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
        program = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        self._process = Process([program or "mosquitto", "-c", path])
        if not eventually(self._listens):
            raise RuntimeError("mosquitto does not start: " + self._process.log())

    def _listens(self) -> bool:
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def wait_for_log(self, text: str) -> bool:
        assert self._process
        return self._process.wait_for_log(text)

    def send_signal(self, number: int) -> None:
        assert self._process
        self._process.send_signal(number)

    def stop(self, number: int = signal.SIGTERM) -> None:
        assert self._process
        self._process.end(number)

    def close(self) -> None:
        self.stop(signal.SIGKILL)
        shutil.rmtree(self._directory, ignore_errors=True)


class Server:
    """A GpioServer in test mode on a port of its own."""

    arguments = ("--test",)
    environment: dict[str, str] = {}

    def __init__(self) -> None:
        self.port = free_port()
        self.process: Process | None = None
        self.start()

    @property
    def address(self) -> str:
        return f"127.0.0.1:{self.port}"

    def start(self) -> None:
        self.process = Process(
            [str(PROGRAMS / "GpioServer"), f"--port={self.port}", *self.arguments],
            self.environment,
            ignores_broken_pipes=True,
        )
        if not eventually(self.answers):
            raise RuntimeError("the server does not start: " + self.process.log())

    def answers(self) -> bool:
        try:
            return self.send("I00") != ""
        except OSError:
            return False

    def send(self, command: str) -> str:
        """One command on a connection of its own; the answer without its line end."""
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

    def stop(self) -> None:
        assert self.process
        self.process.end(signal.SIGKILL)

    def close(self) -> None:
        self.stop()


class BoardServer(Server):
    """A GpioServer on a virtual board."""

    arguments = ("--ftdi",)

    def __init__(self, *options: str) -> None:
        self._directory = tempfile.mkdtemp(prefix="virtual-board-")
        self.board = Process(
            [str(PROGRAMS / "virtual-board"), "--directory", self._directory, *options]
        )
        if not eventually(lambda: os.path.exists(self._directory + "/control")):
            raise RuntimeError("the board does not start: " + self.board.log())
        self.environment = {
            "LD_PRELOAD": str(PROGRAMS / "libvirtual-usb.so"),
            "VIRTUAL_USB_DIRECTORY": self._directory,
        }
        super().__init__()

    def command(self, text: str) -> str:
        with socket.socket(socket.AF_UNIX) as control:
            control.connect(self._directory + "/control")
            control.sendall(text.encode() + b"\n")
            return control.makefile().readline().strip()

    def inputs(self, port_a: int, port_b: int) -> None:
        assert self.command(f"inputs {port_a:02x} {port_b:02x}").startswith("ok")

    def close(self) -> None:
        super().close()
        self.board.end(signal.SIGKILL)
        shutil.rmtree(self._directory, ignore_errors=True)


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
        command = [str(PROGRAMS / "gpio-mqtt"), "--id", identity, "--server", server]
        super().__init__(
            [*command, "--broker", address, *arguments],
            {"GPIO_MQTT_TIME_SCALE": str(scale), **(environment or {})},
        )

    def end(self, number: int = signal.SIGTERM) -> None:
        super().end(number)
        if "Sanitizer" in self.log():
            raise AssertionError(self.log())


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

    def setUp(self) -> None:
        self._logs: list[Process] = []

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
                f"the bridge says:\n{bridge.log()}"
            )

    def assert_logged(self, bridge: Process, text: str, count: int = 1) -> None:
        if not bridge.wait_for_log(text, count):
            self.fail(f"no {text!r} in the log of the bridge:\n{bridge.log()}")
