"""Brokers that restart, hang, refuse, and that ask for proof."""

from __future__ import annotations

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

import schema
from harness import PROGRAMS, Mosquitto, Observer, Process, Server, TestCase, eventually, retained

ROOT = Path(__file__).resolve().parents[2]
# By hand: ROUNDS=1000.
ROUNDS = int(os.environ.get("ROUNDS", "15"))
BRIDGE = "gpio/lab1/bridge"
DEVICE = "homeassistant/device/gpio_lab1/config"


def resident_kib(pid: int) -> int:
    status = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return int(status.split("VmRSS:")[1].split()[0])


def connections(process: Process) -> int:
    return process.text().count("connected to the broker")


class BrokerTestCase(TestCase):
    def setUp(self) -> None:
        super().setUp()
        self.server = self.keep(Server())

    def bridge_on(self, broker: Mosquitto | str, *arguments: str, **how):
        return self.start_bridge(self.server.address, broker, *arguments, **how)

    def observe(self, broker: Mosquitto, username: str = "", password: str = "") -> Observer:
        return self.keep(Observer(broker.port, username, password))


class LossTest(BrokerTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.broker = self.start_broker()

    def start(self, *arguments: str, **how):
        bridge = self.bridge_on(self.broker, *arguments, **how)
        self.assert_logged(bridge, "connected to the broker")
        return bridge

    def test_everything_is_told_again_after_a_restart_of_the_broker(self) -> None:
        bridge = self.start()
        self.broker.stop()
        self.server.send("W31")
        self.broker.start()
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        self.assertEqual(observer.newest("gpio/lab1/3/state"), "ON")
        self.assertEqual(observer.newest("gpio/lab1/board"), "online")
        schema.check_device(json.loads(observer.payloads(DEVICE)[-1]))

    def test_memory_stays_flat_over_many_restarts_of_the_broker(self) -> None:
        bridge = self.start(scale=0.01)
        settled = 0
        for number in range(ROUNDS):
            self.broker.stop(signal.SIGKILL)
            self.broker.start()
            self.assert_logged(bridge, "connected to the broker", number + 2)
            settled = settled or (resident_kib(bridge.pid) if number >= 5 else 0)
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        grown = resident_kib(bridge.pid) - settled
        print(f"{ROUNDS} restarts: {settled} KiB, grown by {grown} KiB")
        if not os.environ.get("GPIO_SANITIZED"):  # Sanitizers keep freed memory for a while.
            self.assertLess(grown, 512)

    def test_a_broker_that_stops_answering_is_left_and_found_again(self) -> None:
        bridge = self.start()
        self.broker.pause()
        self.assert_logged(bridge, "does not answer a ping")
        self.server.send("W31")
        self.broker.resume()
        observer = self.observe(self.broker)
        self.assert_told(observer, "gpio/lab1/3/state", "ON", bridge)
        self.assert_told(observer, BRIDGE, "online", bridge)

    def test_a_ping_may_be_answered_before_anybody_looks(self) -> None:
        broker = self.start_broker("allow_anonymous true", "log_type all")
        slow = {"LD_PRELOAD": str(PROGRAMS / "libSlowPing.so")}
        bridge = self.bridge_on(broker, environment=slow)
        self.assertTrue(broker.wait_for_log("Received PINGREQ"), bridge.text())
        self.assertFalse(bridge.wait_for_log("does not answer a ping", limit=3))

    def test_a_broker_that_stopped_for_a_moment_gets_the_newest_states(self) -> None:
        bridge = self.start()
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        self.broker.pause()
        for _ in range(50):
            self.server.send("W31")
            self.server.send("W30")
        self.server.send("W41")
        self.broker.resume()
        self.assert_told(observer, "gpio/lab1/4/state", "ON", bridge)
        self.assert_told(observer, "gpio/lab1/3/state", "OFF", bridge)
        self.assertEqual(connections(bridge), 1)

    def test_the_end_says_offline(self) -> None:
        bridge = self.start()
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        bridge.send_signal(signal.SIGTERM)
        self.assertEqual(bridge.wait(), 0)
        self.assertEqual(retained(self.broker.port)[BRIDGE], "offline")

    def test_nothing_that_is_told_meanwhile_takes_back_that_it_ends(self) -> None:
        bridge = self.start("--only", "3", "--no-discovery")
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        # Answered by everything after up to 0.6 s, while the farewell waits for the broker.
        observer.publish("homeassistant/status", "online")
        time.sleep(0.06)
        self.broker.pause()
        bridge.send_signal(signal.SIGTERM)
        time.sleep(0.6)
        self.broker.resume()
        self.assertEqual(bridge.wait(), 0)
        self.assertTrue(eventually(lambda: "offline" in observer.payloads(BRIDGE)))
        self.assertEqual(retained(self.broker.port)[BRIDGE], "offline")

    def test_a_sudden_end_says_offline_too(self) -> None:
        bridge = self.start()
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        bridge.send_signal(signal.SIGKILL)
        self.assert_told(observer, BRIDGE, "offline", bridge)

    def test_a_late_will_does_not_leave_it_offline(self) -> None:
        bridge = self.start()
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        observer.clear()
        observer.publish(BRIDGE, "offline", retain=True)
        self.assertTrue(eventually(lambda: observer.payloads(BRIDGE) == ["offline", "online"]))
        self.assertEqual(retained(self.broker.port)[BRIDGE], "online")

    def test_two_bridges_with_one_id_say_so_and_fight_ever_more_slowly(self) -> None:
        first = self.start()
        second = self.start()
        self.assert_logged(first, "does another bridge use the id", 2)
        self.assert_logged(second, "does another bridge use the id", 2)
        # Pauses of 0.2 s doubling to 12 s: a dozen connections in the first 10 seconds at most.
        time.sleep(2)
        self.assertLess(connections(first) + connections(second), 14)

    def test_a_server_that_is_away_does_not_keep_the_bridge_away(self) -> None:
        self.server.stop()
        bridge = self.start()
        observer = self.observe(self.broker)
        self.assert_told(observer, BRIDGE, "online", bridge)
        self.assertEqual(observer.newest("gpio/lab1/board"), "offline")
        self.server.start()
        self.assert_told(observer, "gpio/lab1/board", "online", bridge)
        self.assertEqual(observer.newest("gpio/lab1/3/state"), "OFF")

    def test_a_server_that_does_not_answer_does_not_keep_the_bridge_away(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as server:
            address = f"127.0.0.1:{server.getsockname()[1]}"
            bridge = self.start_bridge(address, self.broker, scale=1)
            self.assert_told(self.observe(self.broker), BRIDGE, "online", bridge)
            for _ in range(2):  # The second attempt has only begun and takes five seconds.
                self.addCleanup(server.accept()[0].close)
            self.broker.stop(signal.SIGKILL)
            self.broker.start()
            self.assert_logged(bridge, "connected to the broker", 2)
            back = self.observe(self.broker)
            self.assertTrue(back.wait_for(BRIDGE, "online", 2), bridge.text())


class HangingTest(BrokerTestCase):
    """Whatever hangs, the bridge ends within two seconds."""

    def assert_ends_in_time(self, bridge: Process) -> None:
        begin = time.monotonic()
        bridge.send_signal(signal.SIGTERM)
        self.assertEqual(bridge.wait(), 0)
        self.assertLess(time.monotonic() - begin, 2)

    def silent_listener(self, backlog: int) -> socket.socket:
        listener = socket.socket()
        self.addCleanup(listener.close)
        listener.bind(("127.0.0.1", 0))
        listener.listen(backlog)
        return listener

    def test_a_broker_that_accepts_and_says_nothing(self) -> None:
        listener = self.silent_listener(100)
        bridge = self.bridge_on(f"127.0.0.1:{listener.getsockname()[1]}")
        self.assert_logged(bridge, "no answer within")
        self.assert_ends_in_time(bridge)

    def test_an_address_that_answers_nothing_at_all(self) -> None:
        listener = self.silent_listener(0)
        # The one place in the queue is taken, so the system answers no further attempt.
        with socket.create_connection(listener.getsockname()):
            bridge = self.bridge_on(f"127.0.0.1:{listener.getsockname()[1]}")
            self.assert_logged(bridge, "no answer within")
            self.assert_ends_in_time(bridge)

    def test_a_name_server_that_says_nothing(self) -> None:
        silence = {"LD_PRELOAD": str(PROGRAMS / "libSilentNames.so")}
        bridge = self.start_bridge("gpio.example:1", "broker.example", environment=silence)
        self.assert_logged(bridge, "looking up the name broker.example takes too long")
        self.assert_logged(bridge, "looking up the name gpio.example took too long")
        self.assert_ends_in_time(bridge)

    def test_a_stopped_broker(self) -> None:
        broker = self.start_broker()
        bridge = self.bridge_on(broker)
        self.assert_told(self.observe(broker), BRIDGE, "online", bridge)
        broker.pause()
        self.assert_ends_in_time(bridge)

    def test_a_log_that_nobody_reads(self) -> None:
        broker = self.start_broker()
        observer = self.observe(broker)
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        bridge = subprocess.Popen(
            [str(PROGRAMS / "gpio-mqtt"), "--id", "lab1", "--server",
             self.server.address, "--broker", f"127.0.0.1:{broker.port}"],
            stderr=writer,
        )  # fmt: skip
        self.addCleanup(bridge.kill)
        os.close(writer)
        self.assertTrue(observer.wait_for(BRIDGE, "online"))
        for _ in range(3000):
            observer.publish("gpio/lab1/3/set", "x", waits=False)
        self.assertTrue(observer.switches_on("gpio/lab1/3"))
        bridge.terminate()
        self.assertEqual(bridge.wait(2), 0)


class RefusalTest(BrokerTestCase):
    def password_broker(self, *lines: str) -> Mosquitto:
        directory = Path(tempfile.mkdtemp(prefix="mosquitto-password-"))
        directory.chmod(0o755)
        self.addCleanup(shutil.rmtree, directory, True)
        passwords = directory / "passwords"
        for number, name in enumerate(("gpio-lab1", "home")):
            create = ["-c"] if number == 0 else []
            subprocess.run(
                ["mosquitto_passwd", *create, "-b", str(passwords), name, "secret"], check=True
            )
        passwords.chmod(0o644)
        return self.start_broker("allow_anonymous false", f"password_file {passwords}", *lines)

    def password_file(self, text: str) -> str:
        file = tempfile.NamedTemporaryFile("w", delete=False)
        self.addCleanup(os.unlink, file.name)
        with file:
            file.write(text)
        return file.name

    def test_a_wrong_password_is_logged_and_tried_again(self) -> None:
        broker = self.password_broker()
        password = self.password_file("wrong\n")
        bridge = self.bridge_on(broker, "--username", "gpio-lab1", "--password-file", password)
        self.assert_logged(bridge, "refuses the connection")
        Path(password).write_text("secret\nthis line is none\n", encoding="ascii")
        self.assert_logged(bridge, "connected to the broker")

    def test_the_example_of_an_access_list_permits_all_that_is_needed(self) -> None:
        example = ROOT / "packaging/examples/gpio-mqtt.acl"
        copy = self.password_file(example.read_text(encoding="ascii"))
        os.chmod(copy, 0o644)
        broker = self.password_broker(f"acl_file {copy}")
        password = self.password_file("secret\n")
        bridge = self.bridge_on(broker, "--username", "gpio-lab1", "--password-file", password)
        home = self.observe(broker, "home", "secret")
        self.assert_told(home, BRIDGE, "online", bridge)
        home.publish("gpio/lab1/3/set", "ON")
        self.assert_told(home, "gpio/lab1/3/state", "ON", bridge)
        home.clear()
        home.publish("homeassistant/status", "online")
        self.assert_told(home, BRIDGE, "online", bridge)
        schema.check_device(json.loads(home.payloads(DEVICE)[-1]))
        self.assertNotIn("access list", bridge.text())

    def test_an_access_list_that_forbids_discovery_is_logged(self) -> None:
        copy = self.password_file("user gpio-lab1\ntopic readwrite gpio/lab1/#\n")
        os.chmod(copy, 0o644)
        broker = self.password_broker(f"acl_file {copy}")
        password = self.password_file("secret\n")
        bridge = self.bridge_on(broker, "--username", "gpio-lab1", "--password-file", password)
        self.assert_logged(bridge, "check its access list")


class LimitTest(BrokerTestCase):
    def test_small_queues_lose_nothing_that_is_retained(self) -> None:
        broker = self.start_broker(
            "allow_anonymous true", "max_inflight_messages 1", "max_queued_messages 2"
        )
        for pins in ("3,4,5,6,7,8,9", "3"):
            bridge = self.bridge_on(broker, "--only", pins, "--discovery-format", "component")
            self.assertTrue(eventually(lambda: retained(broker.port).get(BRIDGE) == "online"))
            held = retained(broker.port)
            bridge.end()
        states = [topic for topic in held if topic.endswith("/state")]
        configs = [topic for topic in held if topic.endswith("/config")]
        self.assertEqual(states, ["gpio/lab1/3/state"])
        self.assertEqual(configs, ["homeassistant/switch/gpio_lab1/p3/config"])

    def test_a_broker_that_hangs_up_on_large_packets_is_told_of_in_the_log(self) -> None:
        broker = self.start_broker("allow_anonymous true", "max_packet_size 1500")
        bridge = self.bridge_on(broker)
        self.assert_logged(bridge, "--discovery-format component")

    def test_a_broker_that_drops_large_messages_is_told_of_in_the_log(self) -> None:
        broker = self.start_broker("allow_anonymous true", "message_size_limit 1500")
        bridge = self.bridge_on(broker)
        self.assert_logged(bridge, "--discovery-format component")

    def test_the_component_format_gets_through_small_packets(self) -> None:
        broker = self.start_broker("allow_anonymous true", "max_packet_size 1500")
        bridge = self.bridge_on(broker, "--discovery-format", "component")
        self.assert_told(self.observe(broker), BRIDGE, "online", bridge)
        self.assertNotIn("lost the connection", bridge.text())


class TlsTest(BrokerTestCase):
    """Certificates are made anew for each run."""

    directory: Path

    @classmethod
    def setUpClass(cls) -> None:
        cls.directory = Path(tempfile.mkdtemp(prefix="certificates-"))
        cls.directory.chmod(0o755)
        cls.addClassCleanup(shutil.rmtree, cls.directory, True)
        cls.make_ca("ca")
        cls.make_ca("other-ca")
        cls.make("localhost", "ca", "DNS:localhost,IP:127.0.0.1")
        cls.make("elsewhere", "ca", "DNS:elsewhere.example")
        cls.make("client", "ca", "DNS:client")

    @classmethod
    def openssl(cls, *arguments: str) -> None:
        subprocess.run(["openssl", *arguments], cwd=cls.directory, check=True, capture_output=True)

    @classmethod
    def make_ca(cls, name: str) -> None:
        cls.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                    f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.crt")  # fmt: skip

    @classmethod
    def make(cls, name: str, authority: str, names: str) -> None:
        cls.openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}", "-keyout",
                    f"{name}.key", "-out", f"{name}.csr")  # fmt: skip
        (cls.directory / f"{name}.ext").write_text(f"subjectAltName={names}\n", encoding="ascii")
        cls.openssl("x509", "-req", "-in", f"{name}.csr", "-CA", f"{authority}.crt", "-CAkey",
                    f"{authority}.key", "-CAcreateserial", "-days", "2", "-extfile", f"{name}.ext",
                    "-out", f"{name}.crt")  # fmt: skip
        (cls.directory / f"{name}.key").chmod(0o644)

    def path(self, name: str) -> str:
        return str(self.directory / name)

    def tls_broker(self, certificate: str, *lines: str) -> Mosquitto:
        listener = (
            f"cafile {self.path('ca.crt')}\ncertfile {self.path(certificate + '.crt')}\n"
            f"keyfile {self.path(certificate + '.key')}"
        )
        return self.start_broker(*lines, "allow_anonymous true", listener=listener)

    def tls_bridge(self, broker: Mosquitto, host: str, *arguments: str, ca: str = "ca.crt"):
        return self.bridge_on(f"{host}:{broker.port}", "--ca-file", self.path(ca), *arguments)

    def test_the_right_certificate_is_accepted_by_name_and_by_address(self) -> None:
        broker = self.tls_broker("localhost")
        for host in ("localhost", "127.0.0.1"):
            with self.subTest(host=host):
                bridge = self.tls_bridge(broker, host)
                self.assert_logged(bridge, "connected to the broker")
                bridge.end()

    def test_a_certificate_of_another_authority_is_refused(self) -> None:
        bridge = self.tls_bridge(self.tls_broker("localhost"), "localhost", ca="other-ca.crt")
        self.assert_logged(bridge, "certificate verify failed")
        self.assertEqual(connections(bridge), 0)

    def test_a_certificate_of_another_name_is_refused(self) -> None:
        broker = self.tls_broker("elsewhere")
        for host in ("localhost", "127.0.0.1"):
            with self.subTest(host=host):
                bridge = self.tls_bridge(broker, host)
                self.assert_logged(bridge, "certificate verify failed")
                self.assertEqual(connections(bridge), 0)

    def test_a_client_is_known_by_its_certificate(self) -> None:
        broker = self.tls_broker("localhost", "require_certificate true")
        stranger = self.tls_bridge(broker, "localhost")
        self.assert_logged(stranger, "trying again")
        self.assertEqual(connections(stranger), 0)
        stranger.end()
        own = ("--cert-file", self.path("client.crt"), "--key-file", self.path("client.key"))
        self.assert_logged(self.tls_bridge(broker, "localhost", *own), "connected to the broker")

    def test_commands_and_states_go_through_tls(self) -> None:
        broker = self.tls_broker("localhost")
        bridge = self.tls_bridge(broker, "localhost")
        self.assert_logged(bridge, "connected to the broker")
        common = ["-h", "localhost", "-p", str(broker.port), "--cafile", self.path("ca.crt")]
        # Connected is not subscribed yet; the bridge says so once commands reach it.
        subscriber = ["mosquitto_sub", *common, "-t", "gpio/lab1/bridge", "-C", "1", "-W", "30"]
        self.assertEqual(subprocess.check_output(subscriber), b"online\n")
        subprocess.run(
            ["mosquitto_pub", *common, "-t", "gpio/lab1/3/set", "-m", "ON", "-q", "1"], check=True
        )
        self.assertTrue(eventually(lambda: self.server.send("R30") == "R1R"))


if __name__ == "__main__":
    unittest.main()
