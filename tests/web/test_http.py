"""Requests, answers and streams of events, on the test back end where no board is needed."""

from __future__ import annotations

import contextlib
import gzip
import os
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest

from bridge import JSON_PUT, Bridge, Connection, Events, credentials
from support import (
    LIMIT,
    PROGRAMS,
    BoardServer,
    Script,
    Server,
    eventually,
    untold_firmware,
    unused_address,
)

SANITIZED = bool(os.environ.get("GPIO_SANITIZED"))
GET = b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"


class SharedBridge(unittest.TestCase):
    """One server and one bridge for all tests of a class."""

    options: tuple[str, ...] = ("--pin=3=Pump",)
    scale = 1.0
    server: Server
    bridge: Bridge

    @classmethod
    def setUpClass(cls) -> None:
        cls.server = Server()
        cls.addClassCleanup(cls.server.close)
        cls.bridge = Bridge(cls.server.address, *cls.options, scale=cls.scale)
        cls.addClassCleanup(cls.bridge.close)
        cls.bridge.wait_until_up()


class EndpointTest(SharedBridge):
    def test_pins_are_listed_with_their_names(self) -> None:
        answer = self.bridge.get("/api/v1/pins")
        self.assertEqual(200, answer.status)
        self.assertEqual("no-store", answer.fields["cache-control"])
        document = answer.json()
        self.assertEqual(["backEnd", "firmware", "board", "pins"], list(document))
        self.assertEqual(["test", None, True], list(document.values())[:3])
        self.assertEqual({"n": 3, "name": "Pump", "dir": "out", "level": 0}, document["pins"][3])
        self.assertEqual("", document["pins"][4]["name"])
        self.assertEqual(16, len(document["pins"]))

    def test_a_level_can_be_set_and_is_known_at_once(self) -> None:
        for level in (1, 0):
            answer = self.bridge.put(5, '{"level":%d}' % level)
            self.assertEqual((204, b""), (answer.status, answer.body))
            self.assertEqual(level, self.bridge.level(5))

    def test_a_direction_can_be_set_on_the_test_back_end(self) -> None:
        self.assertEqual(204, self.bridge.put(6, '{"dir":"in"}').status)
        self.assertEqual("in", self.bridge.pins()["pins"][6]["dir"])
        self.assertEqual(409, self.bridge.put(6, '{"level":1}').status)
        self.assertEqual(204, self.bridge.put(6, '{"dir":"out"}').status)

    def test_what_another_client_does_is_seen(self) -> None:
        with Events(self.bridge.port) as events:
            events.until("snapshot")
            subprocess.run(
                [PROGRAMS / "gpio-client", "set", "7=1"],
                check=True,
                env={**os.environ, "GPIO_SERVER": self.server.address},
            )
            self.assertEqual(1, events.until("change", lambda data: data["n"] == 7)["level"])

    def test_health_is_a_word(self) -> None:
        answer = self.bridge.get("/healthz")
        self.assertEqual((200, b"ok"), (answer.status, answer.body))

    def test_metrics_count_requests_and_tell_levels(self) -> None:
        self.bridge.put(8, '{"level":1}')
        self.bridge.get("/nowhere")
        text = self.bridge.get("/metrics").body.decode()
        self.assertIn('gpio_pin_level{pin="8",direction="out"} 1\n', text)
        self.assertIn("gpio_board_up 1\n", text)
        self.assertIn("gpio_reconnects_total 0\n", text)
        self.assertRegex(text, r'gpio_http_requests_total\{code="404"\} [1-9]')
        self.assertRegex(text, r"gpio_pin_changes_total [1-9]")

    def test_head_is_get_without_a_body(self) -> None:
        for path in ("/", "/app.js", "/style.css", "/healthz", "/metrics", "/api/v1/pins"):
            get, head = self.bridge.get(path), self.bridge.ask("HEAD", path)
            self.assertEqual((200, b""), (head.status, head.body), path)
            if path != "/metrics":
                self.assertEqual(get.fields, head.fields, path)
        self.assertEqual(200, self.bridge.ask("HEAD", "/api/v1/events").status)

    def test_the_page_is_known_again_and_compressed_on_request(self) -> None:
        total = 0
        for path in ("/", "/app.js", "/style.css"):
            plain = self.bridge.get(path)
            packed = self.bridge.get(path, Accept_Encoding="br, gzip;q=0.5")
            self.assertEqual("gzip", packed.fields["content-encoding"])
            self.assertEqual(plain.body, gzip.decompress(packed.body))
            self.assertNotEqual(plain.fields["etag"], packed.fields["etag"])
            self.assertNotIn(
                "content-encoding", self.bridge.get(path, Accept_Encoding="gzip;q=0").fields
            )
            self.assertEqual(
                ("no-cache", "Accept-Encoding"),
                (plain.fields["cache-control"], plain.fields["vary"]),
            )
            again = self.bridge.get(path, If_None_Match=f'"x", W/{plain.fields["etag"]}')
            self.assertEqual((304, b""), (again.status, again.body))
            self.assertEqual(200, self.bridge.get(path, If_None_Match='"x"').status)
            total += len(plain.body)
        self.assertLessEqual(total, 30 * 1024)

    def test_every_answer_is_closed_to_other_pages(self) -> None:
        for path in ("/", "/api/v1/pins", "/nowhere"):
            fields = self.bridge.get(path).fields
            policy = fields["content-security-policy"]
            for part in (
                "default-src 'none'",
                "form-action 'none'",
                "base-uri 'none'",
                "frame-ancestors 'none'",
            ):
                self.assertIn(part, policy)
            self.assertNotIn("unsafe", policy)
            self.assertEqual("nosniff", fields["x-content-type-options"])
            self.assertEqual("no-referrer", fields["referrer-policy"])
            self.assertFalse([name for name in fields if name.startswith("access-control")])


class StatusTest(SharedBridge):
    def put_raw(
        self,
        *lines: str,
        body: bytes = b'{"level":1}',
        path: str = "/api/v1/pins/1",
        method: str = "PUT",
    ) -> int:
        """A request of exactly these header lines."""
        with self.bridge.connect() as connection:
            head = "".join(line + "\r\n" for line in (f"{method} {path} HTTP/1.1", *lines))
            connection.send(head.encode() + b"\r\n" + body)
            return connection.answer(method).status

    def test_a_body_has_exactly_one_key(self) -> None:
        bodies = """{} [] 1 null { {"level":2} {"level":true} {"level":"1"} {"level":1.0}
            {"level":null} {"level":[1]} {"level":{"level":1}} {"dir":"up"} {"dir":1} {"other":1}
            {"level":1,"dir":"in"} {"level":0,"level":1} {"level":1}x {"Level":1}"""
        for body in ("", *bodies.split(), "[" * 4000):
            answer = self.bridge.put(1, body)
            self.assertEqual(400, answer.status, body)
            self.assertTrue(answer.error())

    def test_pins_that_do_not_exist_are_not_found(self) -> None:
        for pin in ("16", "29", "999999999999", "-1", "x", "1x", "01", "0x1", "%31", "+1"):
            self.assertEqual(404, self.bridge.put(pin, '{"level":1}').status, pin)

    def test_unknown_paths_are_not_found(self) -> None:
        paths = "/x /api /api/v1/pins/ /api/v1/pins/1/2 // /index.html /../etc/passwd *"
        for path in paths.split():
            self.assertEqual(404, self.bridge.get(path).status, path)

    def test_a_query_changes_nothing(self) -> None:
        self.assertEqual(200, self.bridge.get("/healthz?x=1").status)

    def test_a_wrong_method_is_told_the_right_ones(self) -> None:
        for method, path, allowed in (
            ("POST", "/", "GET, HEAD"),
            ("PUT", "/api/v1/pins", "GET, HEAD"),
            ("OPTIONS", "/api/v1/pins/1", "PUT"),
            ("GET", "/api/v1/pins/1", "PUT"),
            ("DELETE", "/api/v1/events", "GET, HEAD"),
            ("BREW", "/healthz", "GET, HEAD"),
        ):
            answer = self.bridge.ask(method, path)
            self.assertEqual((405, allowed), (answer.status, answer.fields["allow"]), path)

    def test_a_put_needs_its_header_and_type(self) -> None:
        puts: tuple[tuple[dict[str, str | None], int], ...] = (
            ({"X-Gpio": None}, 403),
            ({"X-Gpio": "2"}, 403),
            ({"Content-Type": None}, 415),
            ({"Content-Type": "text/plain"}, 415),
            ({"Content-Type": "application/json; charset=latin-1"}, 415),
            ({"Content-Type": "Application/JSON; charset=UTF-8"}, 204),
            ({"x-gpio": None, "X-GPIO": "1", "X-Gpio": None}, 204),
        )
        for fields, status in puts:
            self.assertEqual(status, self.bridge.put(2, '{"level":0}', fields).status, fields)

    def test_only_pages_from_here_may_switch(self) -> None:
        port = self.bridge.port
        for origin, host, status in (
            (f"http://127.0.0.1:{port}", None, 204),
            (f"https://127.0.0.1:{port}", None, 204),
            (f"HTTP://LOCALHOST:{port}", f"localhost:{port}", 204),
            ("http://localhost", "localhost:80", 204),
            ("https://localhost", "localhost:443", 204),
            ("http://localhost", "localhost:443", 403),
            (f"http://localhost:{port}", None, 403),
            ("http://127.0.0.1:1", None, 403),
            ("http://127.0.0.1", None, 403),
            ("null", None, 403),
            ("", None, 403),
            ("http://evil.example", None, 403),
            (f"ftp://127.0.0.1:{port}", None, 403),
        ):
            fields = {"Origin": origin, **({"Host": host} if host else {})}
            answer = self.bridge.put(2, '{"level":0}', fields)
            self.assertEqual(status, answer.status, (origin, host))

    def test_only_known_names_are_served(self) -> None:
        for host, status in (
            ("localhost", 200),
            ("LocalHost:1", 200),
            ("127.0.0.1", 200),
            ("[::1]:8080", 200),
            ("evil.example", 421),
            ("localhost.evil.example", 421),
            ("127.0.0.1.evil.example", 421),
            ("localhost:80x", 421),
            ("localhost:", 421),
            ("user@localhost", 421),
            ("[::1", 421),
            ("0.0.0.0", 421),
            ("", 421),
        ):
            for path in ("/healthz", "/metrics", "/"):
                self.assertEqual(status, self.bridge.get(path, Host=host).status, host)

    def test_the_checks_have_an_order(self) -> None:
        host, length = f"Host: localhost:{self.bridge.port}", "Content-Length: 11"
        steps = [  # What each adds puts one thing right; the status is that of the next one wrong.
            ("POST", "/x", [length], 400),
            ("POST", "/x", ["Host: evil.example", length], 421),
            ("POST", "/x", [host, length], 404),
            ("POST", "/api/v1/pins/99", [host, length], 405),
            ("PUT", "/api/v1/pins/99", [host, "Content-Length: 5000"], 403),
            ("PUT", "/api/v1/pins/99", [host, "X-Gpio: 1", "Content-Length: 5000"], 415),
            (
                "PUT",
                "/api/v1/pins/99",
                [host, "X-Gpio: 1", "Content-Type: application/json", "Content-Length: 5000"],
                413,
            ),
        ]
        for method, path, lines, status in steps:
            self.assertEqual(status, self.put_raw(*lines, method=method, path=path), (path, lines))
        self.assertEqual(400, self.bridge.put(99, '{"level":7}').status)

    def test_what_could_be_read_two_ways_is_refused(self) -> None:
        host = "Host: localhost"
        put = ("X-Gpio: 1", "Content-Type: application/json")
        heads: tuple[tuple[list[str], int], ...] = (
            ([host, host], 400),
            ([host, "Host: evil.example"], 400),
            ([], 400),
            ([host, "Origin: http://localhost", "Origin: http://localhost"], 400),
            ([host, *put, "Content-Length: 11", "Content-Length: 11"], 400),
            ([host, *put, "Content-Length: 11", "Transfer-Encoding: chunked"], 400),
            ([host, *put, "Content-Length: +11"], 400),
            ([host, *put, "Transfer-Encoding: identity"], 501),
            ([host, *put, "Transfer-Encoding: xchunked"], 501),
            ([host, *put, "Transfer-Encoding: gzip, chunked"], 501),
            ([host, *put, "Transfer-Encoding: chunked", "Transfer-Encoding: chunked"], 400),
        )
        for lines, status in heads:
            self.assertEqual(status, self.put_raw(*lines), lines)

    def test_nothing_behind_a_refused_coding_is_run(self) -> None:
        hidden = (
            b"PUT /api/v1/pins/9 HTTP/1.1\r\nHost: localhost\r\nX-Gpio: 1\r\n"
            b"Content-Type: application/json\r\nContent-Length: 11\r\n\r\n" + b'{"level":1}'
        )
        for coding in (b"identity", b"xchunked", b"gzip"):
            with self.bridge.connect() as connection:
                connection.send(
                    b"GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: "
                    + coding
                    + b"\r\n\r\n"
                    + hidden
                )
                self.assertEqual(501, connection.answer().status)
                self.assertTrue(connection.is_closed())
        self.assertEqual(0, self.bridge.level(9))

    def test_garbage_is_a_bad_request(self) -> None:
        for garbage in (
            b"\x16\x03\x01\x02\x00",
            b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n",
            b"hello\r\n\r\n",
            b"GET /\r\n\r\n",
            b"GET / HTTP/3.0\r\nHost: localhost\r\n\r\n",
            b"GET / HTTP/1.1\nHost: localhost\n\n\r\n\r\n",
            b"GET / HTTP/1.1\r\nHost : localhost\r\n\r\n",
            b"\0" * 64 + b"\r\n\r\n",
        ):
            with self.bridge.connect() as connection:
                connection.send(garbage)
                self.assertEqual(400, connection.answer().status, garbage)
                self.assertTrue(connection.is_closed())


class TransportTest(SharedBridge):
    def test_a_request_may_come_byte_by_byte(self) -> None:
        request = (
            b"PUT /api/v1/pins/10 HTTP/1.1\r\nHost: localhost\r\nX-Gpio: 1\r\n"
            b"Content-Type: application/json\r\nContent-Length: 11\r\n\r\n" + b'{"level":1}'
        )
        with self.bridge.connect() as connection:
            connection.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for byte in request:
                connection.send(bytes([byte]))
            self.assertEqual(204, connection.answer().status)

    def test_a_body_may_come_in_chunks(self) -> None:
        head = (
            b"PUT /api/v1/pins/10 HTTP/1.1\r\nHost: localhost\r\nX-Gpio: 1\r\n"
            b"Content-Type: application/json\r\nTransfer-Encoding: Chunked\r\n\r\n"
        )
        with self.bridge.connect() as connection:
            connection.send(head + b'3\r\n{"l\r\n8;x=y\r\nevel":0}\r\n0\r\n\r\n' + GET)
            self.assertEqual(204, connection.answer().status)
            self.assertEqual(200, connection.answer().status)

    def test_a_hundred_requests_at_once_are_answered_in_order(self) -> None:
        with self.bridge.connect() as connection:
            connection.send((GET + GET.replace(b"/healthz", b"/nowhere")) * 50)
            self.assertEqual([200, 404] * 50, [connection.answer().status for _ in range(100)])

    def test_a_client_that_waits_for_permission_gets_it(self) -> None:
        with self.bridge.connect() as connection:
            connection.send(
                "PUT /api/v1/pins/10 HTTP/1.1\r\nHost: localhost\r\nX-Gpio: 1\r\n"
                "Expect: 100-continue\r\n"
                "Content-Type: application/json\r\nContent-Length: 11\r\n\r\n"
            )
            self.assertEqual(100, connection.head()[0])
            connection.send('{"level":0}')
            self.assertEqual(204, connection.answer().status)

    def test_a_header_over_8_kib_is_too_large(self) -> None:
        for size, status in ((7000, 200), (8192, 431), (100_000, 431)):
            self.assertEqual(status, self.bridge.get("/healthz", X_Long="x" * size).status, size)

    def test_a_body_over_4_kib_is_too_large_however_it_comes(self) -> None:
        self.assertEqual(413, self.bridge.put(1, " " * 4097).status)
        self.assertEqual(400, self.bridge.put(1, " " * 4096).status)
        with self.bridge.connect() as connection:
            connection.send(
                b"PUT /api/v1/pins/1 HTTP/1.1\r\nHost: localhost\r\nX-Gpio: 1\r\n"
                b"Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n"
            )
            connection.send(b"800\r\n" + b" " * 0x800 + b"\r\n")
            connection.send(b"801\r\n" + b" " * 0x801 + b"\r\n0\r\n\r\n")
            self.assertEqual(413, connection.answer().status)

    def test_old_http_ends_the_connection(self) -> None:
        with self.bridge.connect() as connection:
            connection.send("GET /healthz HTTP/1.0\r\nHost: localhost\r\n\r\n")
            self.assertEqual(200, connection.answer().status)
            self.assertTrue(connection.is_closed())

    def test_a_thousand_connects_and_resets_leave_it_as_it_was(self) -> None:
        descriptors = f"/proc/{self.bridge.process.process.pid}/fd"
        before = len(os.listdir(descriptors))
        for number in range(1000):
            with socket.create_connection(("127.0.0.1", self.bridge.port)) as client:
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                if number % 2:
                    client.sendall(GET[: number % len(GET)])
        self.assertEqual(200, self.bridge.get("/healthz").status)
        self.assertTrue(eventually(lambda: len(os.listdir(descriptors)) <= before + 1))


class EventTest(SharedBridge):
    def test_a_stream_begins_with_all_pins(self) -> None:
        with Events(self.bridge.port) as events:
            self.assertEqual(
                (200, "text/event-stream"), (events.status, events.fields["content-type"])
            )
            self.assertEqual(("snapshot", self.bridge.pins()), events.next())

    def test_acknowledged_writes_come_in_order_and_before_the_answer(self) -> None:
        with Events(self.bridge.port) as events:
            events.until("snapshot")
            expected = []
            for number in range(60):
                self.assertEqual(204, self.bridge.put(11, '{"level":%d}' % (1 - number % 2)).status)
                expected.append(1 - number % 2)
            got = [events.until("change", lambda data: data["n"] == 11) for _ in expected]
            self.assertEqual(expected, [data["level"] for data in got])
            self.assertAlmostEqual(time.time(), got[-1]["t"], delta=60)

    def test_a_new_direction_brings_a_new_snapshot(self) -> None:
        with Events(self.bridge.port) as events:
            events.until("snapshot")
            self.bridge.put(12, '{"dir":"in"}')
            self.assertEqual("in", events.until("snapshot")["pins"][12]["dir"])
            self.bridge.put(12, '{"dir":"out"}')
            self.assertEqual("out", events.until("snapshot")["pins"][12]["dir"])


class LossTest(unittest.TestCase):
    def test_it_starts_without_a_server_and_finds_it_later(self) -> None:
        server = Server()
        server.stop()
        bridge = Bridge(server.address)
        self.addCleanup(bridge.close)
        self.addCleanup(server.close)
        self.assertEqual(
            {"backEnd": None, "firmware": None, "board": False, "pins": []}, bridge.pins()
        )
        self.assertEqual(503, bridge.get("/healthz").status)
        self.assertEqual(503, bridge.put(3, '{"level":1}').status)
        with Events(bridge.port) as events:
            events.until("snapshot")
            server.start()
            self.assertEqual({"board": True}, events.until("link"))
            self.assertEqual("test", events.until("snapshot")["backEnd"])

    def test_the_board_goes_and_comes_back(self) -> None:
        with BoardServer("--inputs", "01", "00") as board, Bridge(board.address) as bridge, Events(
            bridge.port
        ) as events:
            pins = events.until("snapshot")["pins"]
            self.assertEqual(
                [None] + [0] * 8 + [None] * 4 + [1] + [0] * 15, [pin["level"] for pin in pins]
            )
            self.assertEqual("v1.0", bridge.pins()["firmware"])
            board.inputs(13, 14)
            self.assertEqual((14, 1), tuple(events.until("change").values())[:2])
            self.assertEqual(204, bridge.put(12, '{"level":1}').status)
            self.assertEqual(1, bridge.level(12))
            self.assertTrue(eventually(lambda: board.outputs()[12] == "1"))
            self.assertEqual(409, bridge.put(13, '{"level":1}').status)
            self.assertEqual(409, bridge.put(1, '{"dir":"in"}').status)
            self.assertEqual(404, bridge.put(29, '{"level":1}').status)
            board.unplug()
            self.assertEqual({"board": False}, events.until("link"))
            self.assertEqual(503, bridge.put(1, '{"level":1}').status)
            self.assertNotIn("gpio_pin_level{", bridge.get("/metrics").body.decode())
            board.plug()
            self.assertEqual({"board": True}, events.until("link"))
            pins = events.until("snapshot")["pins"]
            self.assertEqual([None] * 13, [pin["level"] for pin in pins[:13]])
            self.assertEqual([1, 1], [pin["level"] for pin in pins[13:15]])
            self.assertEqual(204, bridge.put(1, '{"level":0}').status)
            self.assertEqual(0, bridge.level(1))
            self.assertIn("gpio_reconnects_total 1\n", bridge.get("/metrics").body.decode())

    def test_a_firmware_that_the_board_has_not_told_is_unknown(self) -> None:
        with Script(untold_firmware) as server, Bridge(server.address) as bridge:
            self.assertEqual("Unknown", bridge.pins()["firmware"])

    def test_outputs_that_another_client_sets_on_the_board_show_within_two_seconds(self) -> None:
        with BoardServer() as board, Bridge(board.address) as bridge, Events(bridge.port) as events:
            events.until("snapshot")
            began = time.monotonic()
            subprocess.run(
                [PROGRAMS / "gpio-client", "set", "3=1"],
                check=True,
                env={**os.environ, "GPIO_SERVER": board.address},
            )
            self.assertEqual(1, events.until("change", lambda data: data["n"] == 3)["level"])
            self.assertLess(time.monotonic() - began, 2)

    def test_a_server_that_says_nothing_more_is_no_reason_to_wait(self) -> None:
        server = Server()
        self.addCleanup(server.close)
        bridge = Bridge(server.address, scale=0.2)
        self.addCleanup(bridge.close)
        bridge.wait_until_up()
        server.process.pause()
        self.addCleanup(server.process.resume)
        answer = bridge.put(1, '{"level":1}')
        self.assertEqual(503, answer.status)
        self.assertRegex(answer.error(), "may have been carried out|nothing was changed")
        began = time.monotonic()
        self.assertEqual(200, bridge.get("/api/v1/pins").status)
        self.assertLess(time.monotonic() - began, 1)
        status, seconds = bridge.end()
        self.assertEqual(0, status)
        self.assertLess(seconds, 2)

    def test_at_most_sixteen_writes_wait(self) -> None:
        server = Server()
        self.addCleanup(server.close)
        bridge = Bridge(server.address, scale=0.6)
        self.addCleanup(bridge.close)
        bridge.wait_until_up()
        server.process.pause()
        self.addCleanup(server.process.resume)
        answers = []
        threads = [
            threading.Thread(target=lambda: answers.append(bridge.put(1, '{"level":1}')))
            for _ in range(20)
        ]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(LIMIT)
        errors = [answer.error() for answer in answers]
        self.assertEqual([503] * 20, [answer.status for answer in answers])
        self.assertEqual(4, sum("too many" in error for error in errors), errors)


class LimitTest(SharedBridge):
    """Every time is a fiftieth: 60 s are 1.2 s, 10 s are 0.2 s."""

    scale = 0.02

    def test_an_idle_connection_is_closed(self) -> None:
        with self.bridge.connect() as connection:
            connection.send(GET)
            connection.answer()
            began = time.monotonic()
            self.assertTrue(connection.is_closed())
            self.assertGreater(time.monotonic() - began, 1.0)

    def test_a_request_that_does_not_end_is_given_up(self) -> None:
        for part in (
            GET[:10],
            GET[:-2],
            b"PUT /api/v1/pins/1 HTTP/1.1\r\nHost: localhost\r\nX-Gpio: 1\r\n"
            b"Content-Type: application/json\r\nContent-Length: 11\r\n\r\n{",
        ):
            with self.bridge.connect() as connection:
                connection.send(part)
                self.assertEqual(408, connection.answer().status)
                self.assertTrue(connection.is_closed())

    def test_a_silent_stream_has_comments(self) -> None:
        with Events(self.bridge.port) as events:
            events.until("snapshot")
            self.assertEqual([":", ":"], [events.next()[0] for _ in range(2)])


class CapacityTest(SharedBridge):
    def test_streams_leave_room_for_those_who_switch(self) -> None:
        open_streams = contextlib.ExitStack()
        self.addCleanup(open_streams.close)
        streams = [open_streams.enter_context(Events(self.bridge.port)) for _ in range(224)]
        self.assertEqual({200}, {stream.status for stream in streams})
        for stream in streams:
            stream.until("snapshot")
        with Events(self.bridge.port) as one_more:
            self.assertEqual(503, one_more.status)
        self.assertEqual(204, self.bridge.put(1, '{"level":1}').status)
        told = {stream.until("change", lambda data: data["n"] == 1)["level"] for stream in streams}
        self.assertEqual({1}, told)
        held = [Connection(self.bridge.port) for _ in range(32)]
        with self.bridge.connect() as refused:
            self.assertEqual(503, refused.answer().status)
        for connection in held:
            connection.close()
        self.assertTrue(eventually(lambda: self.bridge.get("/healthz").status == 200))

    def test_a_reader_that_does_not_read_is_dropped_and_holds_nobody_up(self) -> None:
        bridge = Bridge(self.server.address, scale=0.1)
        self.addCleanup(bridge.close)
        bridge.wait_until_up()
        with Events(bridge.port, receive_buffer=4096) as slow, Events(bridge.port) as quick:
            quick.until("snapshot")
            memory = bridge.memory()
            deadline = time.monotonic() + LIMIT
            level = 0
            with bridge.connect() as connection:
                while time.monotonic() < deadline:
                    level = 1 - level
                    body = '{"level":%d}' % level
                    connection.send(
                        f"PUT /api/v1/pins/2 HTTP/1.1\r\nHost: localhost\r\nX-Gpio: 1\r\n"
                        f"Content-Type: application/json\r\nContent-Length: {len(body)}\r\n\r\n"
                        f"{body}"
                    )
                    self.assertEqual(204, connection.answer().status)
                    self.assertEqual(level, quick.until("change")["level"])
                    if level == 0 and self.is_reset(slow):
                        break
            self.assertLess(time.monotonic(), deadline, "the slow reader was not dropped")
            if not SANITIZED:  # They keep what was freed for a while.
                self.assertLess(bridge.memory() - memory, 1 << 20)

    @staticmethod
    def is_reset(stream: Connection) -> bool:
        """Whether the other side has ended the connection, found out without reading."""
        state = stream.socket.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)[0]
        return state in (7, 8)  # Closed, or closed by the other side.


class PasswordTest(SharedBridge):
    @classmethod
    def setUpClass(cls) -> None:
        file = tempfile.NamedTemporaryFile("w")
        file.write("open sesame\nsecond line\n")
        file.flush()
        cls.addClassCleanup(file.close)
        cls.options = (f"--password-file={file.name}",)
        super().setUpClass()

    def test_only_health_is_free(self) -> None:
        self.assertEqual(200, self.bridge.get("/healthz").status)
        for path in ("/", "/app.js", "/metrics", "/api/v1/pins", "/api/v1/events", "/nowhere"):
            answer = self.bridge.get(path)
            self.assertEqual(401, answer.status)
            self.assertTrue(answer.fields["www-authenticate"].startswith("Basic "))

    def test_the_right_password_opens(self) -> None:
        self.assertEqual(200, self.bridge.ask("GET", "/", credentials("open sesame")).status)

    def test_wrong_ones_are_slow_and_few_at_a_time_and_the_right_one_is_not(self) -> None:
        began = time.monotonic()
        answers = []
        wrong = [
            credentials(word)
            for word in ("", "open", "open sesame ", "open sesameopen sesame", "x", "y")
        ]
        wrong += [
            credentials("open sesame", "root"),
            {"Authorization": "Basic !!!"},
            {"Authorization": "Bearer x"},
        ]

        def ask(fields: dict[str, str]) -> None:
            answers.append((self.bridge.ask("GET", "/", fields).status, time.monotonic() - began))

        threads = [threading.Thread(target=ask, args=(fields,)) for fields in wrong]
        for thread in threads:
            thread.start()
        self.assertEqual(200, self.bridge.ask("GET", "/", credentials("open sesame")).status)
        self.assertLess(time.monotonic() - began, 0.9)
        for thread in threads:
            thread.join(LIMIT)
        self.assertEqual([401] * 4 + [429] * 5, sorted(status for status, _ in answers))
        self.assertTrue(all(seconds >= 1 for status, seconds in answers if status == 401), answers)


class ReadOnlyTest(SharedBridge):
    options = ("--read-only",)

    def test_nothing_can_be_switched_and_the_page_knows(self) -> None:
        self.assertEqual(403, self.bridge.put(1, '{"level":1}').status)
        self.assertIs(True, self.bridge.pins()["readOnly"])


class ProgramTest(unittest.TestCase):
    def run_program(self, *options: str | bytes) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            [PROGRAMS / "gpio-web", *options],
            capture_output=True,
            text=True,
            timeout=LIMIT,
            check=False,
        )

    def assert_usage(self, text: str, *options: str) -> None:
        result = self.run_program(*options)
        self.assertEqual(2, result.returncode, result.stderr)
        self.assertIn(text, result.stderr)
        self.assertEqual("", result.stdout)

    def test_wrong_usage_is_told(self) -> None:
        with tempfile.NamedTemporaryFile("w") as empty:
            empty.write("\nsecond line\n")
            empty.flush()
            for text, *options in (
                ("--password-file", "--listen=0.0.0.0:0"),
                ("--password-file", "--listen=[::]:0"),
                ("--password-file", "--allow-host=gpio.example"),
                ("is empty", "--password-file=" + empty.name),
                ("cannot read", "--password-file=/nowhere"),
                ("named twice", "--pin=3=a", "--pin=0x3=b"),
                ("N=NAME", "--pin=3"),
                ("no name", "--pin=3="),
                ("is not a pin", "--pin=x=a"),
                ("not UTF-8", os.fsdecode(b"--pin=3=\xff")),
                ("--listen", "--listen=8080"),
                ("--listen", "--listen=somewhere:80"),
                ("--server", "--server=x"),
                ("--allow-host", "--allow-host=a:1"),
                ("--help", "--unknown"),
                ("--help", "--config=/nowhere"),
            ):
                self.assert_usage(text, *options)

    def test_help_and_version_are_no_errors(self) -> None:
        self.assertEqual(0, self.run_program("--help").returncode)
        self.assertRegex(self.run_program("--version").stdout, r"^gpio-web \d+\.\d+")

    def test_a_taken_port_ends_it_with_1(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as taken:
            result = self.run_program(
                f"--listen=127.0.0.1:{taken.getsockname()[1]}", f"--server={unused_address()}"
            )
        self.assertEqual(1, result.returncode)

    def test_the_options_may_stand_in_a_file(self) -> None:
        with Server() as server, tempfile.NamedTemporaryFile("w", suffix=".ini") as file:
            file.write(
                f'server={server.address}\nread-only=true\npin="3=Main pump, left"\n'
                "pin=4=Fan, or none\nallow-host=localhost\n"
            )
            file.flush()
            with Bridge(server.address, f"--config={file.name}") as bridge:
                pins = bridge.pins()
                self.assertEqual(
                    ["Main pump, left", "Fan, or none"], [pin["name"] for pin in pins["pins"][3:5]]
                )
                self.assertTrue(pins["readOnly"])

    def test_a_name_for_a_pin_that_is_not_there_is_a_warning(self) -> None:
        with Server() as server, Bridge(server.address, "--pin=28=Door", "--pin=29=Gate") as bridge:
            for pin, name in ((28, "Door"), (29, "Gate")):
                text = f"no pin {pin} for the name {name}"
                self.assertTrue(eventually(lambda: text in bridge.process.text()), text)

    def test_messages_that_nobody_reads_hold_nothing_up(self) -> None:
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        os.set_blocking(writer, False)
        with contextlib.suppress(BlockingIOError):
            while os.write(writer, b"x" * 4096):
                pass
        os.set_blocking(writer, True)
        with Server() as server:
            # One thread tells of the connection, the other of the name.
            bridge = subprocess.Popen(
                [
                    PROGRAMS / "gpio-web",
                    f"--server={server.address}",
                    "--listen=127.0.0.1:0",
                    "--pin=28=Door",
                ],
                stdout=subprocess.PIPE,
                stderr=writer,
            )
            self.addCleanup(bridge.wait)
            self.addCleanup(bridge.kill)
            assert bridge.stdout is not None
            self.addCleanup(bridge.stdout.close)
            os.close(writer)
            port = int(bridge.stdout.readline().rsplit(b":", 1)[1].rstrip(b"/\n"))
            with Events(port) as events:
                self.assertEqual(
                    "test", events.until("snapshot", lambda data: data["board"])["backEnd"]
                )
            bridge.terminate()
            self.assertEqual(0, bridge.wait(LIMIT))

    def test_a_name_server_that_says_nothing_holds_nothing_up(self) -> None:
        bridge = Bridge(
            "gpio.example:1", environment={"LD_PRELOAD": str(PROGRAMS / "libSilentNames.so")}
        )
        self.addCleanup(bridge.close)
        self.assertEqual(503, bridge.get("/healthz").status)
        status, seconds = bridge.end()
        self.assertEqual(0, status)
        self.assertLess(seconds, 2)

    def test_it_ends_in_time_whatever_hangs(self) -> None:
        def never_answer(connection: socket.socket) -> None:
            connection.recv(100)
            connection.recv(100)

        with Script(never_answer) as server:
            bridge = Bridge(server.address)
            try:
                with bridge.connect() as half, Events(bridge.port) as events:
                    half.send(GET[:20])
                    events.next()
                    status, seconds = bridge.end()
                    self.assertEqual(0, status)
                    self.assertLess(seconds, 2)
            finally:
                bridge.close()


if __name__ == "__main__":
    unittest.main()
