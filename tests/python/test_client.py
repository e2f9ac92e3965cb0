"""The client on a live server in test mode, and on servers that misbehave."""

import contextlib
import enum
import errno
import os
import pickle
import socket
import threading
import time
import unittest
from typing import Any
from unittest import mock

import gpio_client
from support import (
    BOARD_PROBE,
    LIMIT,
    TEST_PROBE,
    BoardTest,
    Script,
    Server,
    ServerTest,
    conversation,
    eventually,
    unused_address,
)

connect = gpio_client.connect


class Name(enum.IntEnum):
    PUMP = 2


class OnTheTestBackEnd(ServerTest):
    def setUp(self):
        self.client = connect(self.server.address)
        self.addCleanup(self.client.close)

    def test_tells_the_back_end(self):
        self.assertEqual(self.client.backend, "test")

    def test_has_no_firmware(self):
        self.assertIsNone(self.client.firmware)

    def test_has_sixteen_pins(self):
        self.assertEqual(self.client.pins, range(16))

    def test_reads_what_was_written(self):
        for pin in self.client.pins:
            for level in (True, False):
                self.client.write(pin, level)
                self.assertIs(self.client.read(pin), level)

    def test_reads_a_pin_by_a_name_for_its_number(self):
        self.client.write(Name.PUMP, 1)
        self.assertIs(self.client.read(Name.PUMP), True)

    def test_a_command_for_which_there_is_no_room_waits_for_it(self):
        self.client.write(2, 1)
        faults: list[dict[str, Any]] = [{"side_effect": BlockingIOError}, {"return_value": 0}]
        for short in faults:
            with mock.patch.object(gpio_client._connection, "_write", **short):
                self.assertIs(self.client.read(2), True)

    def test_reads_all_pins_at_once(self):
        for pin in self.client.pins:
            self.client.write(pin, pin % 3 == 0)
        self.assertEqual(self.client.read_all(), {pin: pin % 3 == 0 for pin in range(16)})

    def test_toggles_and_tells_the_new_level(self):
        self.client.write(4, 0)
        self.assertEqual([self.client.toggle(4), self.client.toggle(4)], [True, False])

    def test_sets_directions(self):
        self.client.set_direction(5, "in")
        self.client.set_direction(6, "out")
        self.assertEqual([self.client.direction(5), self.client.direction(6)], ["in", "out"])

    def test_writes_an_input_which_simulates_it(self):
        self.client.set_direction(7, "in")
        self.client.write(7, True)
        self.assertIs(self.client.read(7), True)

    def test_ping_tells_seconds(self):
        self.assertTrue(0 < self.client.ping() < LIMIT)

    def test_refuses_what_is_no_pin_before_anything_is_sent(self):
        for pin in (True, False, 1.0, "1", None, -1, 16, 10**30):
            for use in (
                lambda p: self.client.read(p),
                lambda p: self.client.write(p, 1),
                lambda p: self.client.toggle(p),
                lambda p: self.client.direction(p),
                lambda p: self.client.set_direction(p, "in"),
            ):
                with self.subTest(pin=pin), self.assertRaises(gpio_client.PinError):
                    use(pin)

    def test_names_the_pins_there_are(self):
        with self.assertRaisesRegex(gpio_client.PinError, "no pin 16: .* has pins 0 to 15"):
            self.client.read(16)

    def test_refuses_levels_that_are_none(self):
        self.client.write(3, 0)
        for level in (2, -1, 1.0, "1", None, b"1"):
            with self.subTest(level=level), self.assertRaises(ValueError) as caught:
                self.client.write(3, level)  # type: ignore[arg-type]
            self.assertNotIsInstance(caught.exception, gpio_client.Error)
        self.assertIs(self.client.read(3), False)

    def test_refuses_directions_that_are_none(self):
        with self.assertRaisesRegex(ValueError, '"in" or "out"'):
            self.client.set_direction(3, "input")

    def test_reads_the_address_from_the_environment(self):
        with mock.patch.dict(os.environ, GPIO_SERVER=self.server.address), connect() as client:
            self.assertEqual(client.backend, "test")

    def test_connects_by_name(self):
        with connect(f"localhost:{self.server.port}") as client:
            self.assertEqual(client.backend, "test")

    def test_end_of_the_block_closes_it(self):
        with connect(self.server.address) as client:
            pass
        with self.assertRaisesRegex(gpio_client.ConnectionLost, "connect again"):
            client.read(0)

    def test_closing_twice_does_nothing(self):
        self.client.close()
        self.client.close()

    def test_takes_many_threads(self):
        def work(pin, problems):
            try:
                for number in range(100):
                    self.client.write(pin, number % 2)
                    if self.client.read(pin) != bool(number % 2):
                        problems.append(pin)
            except Exception as error:
                problems.append(error)

        problems: list[object] = []
        threads = [threading.Thread(target=work, args=(pin, problems)) for pin in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(problems, [])

    def test_toggles_of_many_threads_do_not_get_lost(self):
        self.client.write(9, 0)

        def toggle():
            for _ in range(101):
                self.client.toggle(9)

        threads = [threading.Thread(target=toggle) for _ in range(3)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertIs(self.client.read(9), True)

    def test_hangs_up_in_order(self):
        before = self.server.text().count("EOF reached")
        self.client.close()
        self.assertTrue(eventually(lambda: self.server.text().count("EOF reached") > before))


class OnTheBoard(BoardTest):
    OPTIONS = ("--inputs", "01", "80", "--firmware", "2", "5")

    def setUp(self):
        self.client = connect(self.board.address)
        self.addCleanup(self.client.close)

    def test_tells_what_it_is(self):
        self.assertEqual((self.client.backend, self.client.pins), ("board", range(29)))

    def test_tells_the_firmware(self):
        self.assertTrue(eventually(lambda: self.client.firmware))
        self.assertEqual(self.client.firmware, "v2.5")

    def test_reads_inputs(self):
        self.board.inputs(13, 28)
        self.assertTrue(eventually(lambda: self.client.read(13) and self.client.read(28)))
        self.assertIs(self.client.read(14), False)

    def test_drives_outputs(self):
        for pin in range(13):
            self.client.write(pin, 1)
            self.assertEqual(self.board.outputs(), "0" * pin + "1" + "0" * (12 - pin))
            self.client.write(pin, 0)

    def test_reads_a_remembered_output_that_another_client_wrote(self):
        with connect(self.board.address) as other:
            other.write(8, 1)
        self.assertIs(self.client.read(8), True)
        self.client.write(8, 0)

    def test_does_not_know_the_other_outputs_until_it_wrote_them(self):
        levels = self.client.read_all()
        unknown = [pin for pin, level in levels.items() if level is None]
        self.assertEqual(unknown, [0, 9, 10, 11, 12])
        self.client.write(9, 1)
        self.assertIs(self.client.read_all()[9], True)
        self.assertIs(self.client.read(9), True)
        self.client.write(9, 0)

    def test_cannot_read_or_toggle_an_output_that_is_not_known(self):
        for use in (self.client.read, self.client.toggle):
            with self.assertRaisesRegex(gpio_client.PinError, "write it first"):
                use(12)

    def test_cannot_write_or_toggle_an_input(self):
        for use in (lambda: self.client.write(13, 1), lambda: self.client.toggle(13)):
            with self.assertRaisesRegex(gpio_client.PinError, "pin 13 is an input"):
                use()

    def test_directions_are_fixed(self):
        self.assertEqual([self.client.direction(12), self.client.direction(13)], ["out", "in"])
        self.client.set_direction(13, "in")
        with self.assertRaisesRegex(gpio_client.PinError, "cannot become"):
            self.client.set_direction(13, "out")

    def test_a_lost_board_ends_the_client_and_connecting_again_works(self):
        self.board.unplug()
        with self.assertRaises(gpio_client.ConnectionLost):
            self.client.read(13)
        with self.assertRaises(gpio_client.ConnectionLost):
            connect(self.board.address)
        self.board.plug()
        with self.assertRaisesRegex(gpio_client.ConnectionLost, "connect again"):
            self.client.read(13)
        with connect(self.board.address) as client:
            self.assertEqual(client.backend, "board")


class WhatGoesWrong(unittest.TestCase):
    def test_nobody_listens(self):
        with self.assertRaisesRegex(gpio_client.ConnectionLost, "check .* the server runs"):
            connect(unused_address())

    def test_an_address_of_a_family_that_the_system_lacks_is_passed_over(self):
        def make(family=socket.AF_INET, *arguments, **options):
            if family == socket.AF_INET6:
                raise OSError(errno.EAFNOSUPPORT, "no such family")
            return sockets(family, *arguments, **options)

        sockets = socket.socket
        with Server() as server:
            both = [
                (family, socket.SOCK_STREAM, 0, "", (host, server.port))
                for family, host in ((socket.AF_INET6, "::1"), (socket.AF_INET, "127.0.0.1"))
            ]
            with mock.patch.object(socket, "getaddrinfo", return_value=both):
                with mock.patch.object(socket, "socket", make), connect("both:1") as client:
                    self.assertEqual(client.backend, "test")
                with mock.patch.object(socket, "socket", side_effect=OSError(errno.EMFILE, "many")):
                    with self.assertRaisesRegex(gpio_client.ConnectionLost, "many"):
                        connect("both:1")

    def test_a_loss_while_no_thread_can_be_started_as_when_the_program_ends(self):
        with Script(conversation(TEST_PROBE, (b"R00", b"")), conversation(TEST_PROBE)) as server:
            with connect(server.address) as client:
                with mock.patch.object(threading.Thread, "start", side_effect=RuntimeError("end")):
                    with self.assertRaises(gpio_client.ConnectionLost):
                        client.read(0)
                    connect(server.address.replace("127.0.0.1", "localhost")).close()

    def test_a_name_that_is_not_known(self):
        with self.assertRaisesRegex(gpio_client.ConnectionLost, "is not known"):
            connect("no-such-host.invalid:5000")

    def test_addresses_that_are_none(self):
        for address in (
            "",
            "host",
            "host:",
            ":5000",
            "host:0",
            "host:65536",
            "host:x",
            "::1:5000",
            "host:５",
            5000,
        ):
            with self.subTest(address), self.assertRaises(gpio_client.Error) as caught:
                connect(address)  # type: ignore[arg-type]
            self.assertIs(type(caught.exception), gpio_client.Error)

    def test_times_that_are_none(self):
        for timeout in (0, -1, float("nan"), float("inf"), "5", None, True):
            with self.subTest(timeout), self.assertRaises(ValueError):
                connect("127.0.0.1:1", timeout=timeout)  # type: ignore[arg-type]

    def test_the_time_limit_is_for_all_addresses_of_a_name_together(self):
        with contextlib.ExitStack() as stack:
            full = stack.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
            for _ in range(4):  # more than its queue holds, so that nobody else gets in
                waiting = stack.enter_context(socket.socket())
                waiting.setblocking(False)
                waiting.connect_ex(full.getsockname())
            found = [(socket.AF_INET, socket.SOCK_STREAM, 0, "", full.getsockname())] * 5
            stack.enter_context(mock.patch.object(socket, "getaddrinfo", return_value=found))
            began = time.monotonic()
            with self.assertRaisesRegex(gpio_client.Timeout, "could not connect .* within 1 s"):
                connect("full:1", timeout=1)
            self.assertLess(time.monotonic() - began, 4)

    def test_a_name_server_that_does_not_answer_is_given_up(self):
        answer = threading.Event()
        self.addCleanup(answer.set)
        with mock.patch.object(socket, "getaddrinfo", lambda *_, **__: answer.wait() and []):
            with self.assertRaisesRegex(gpio_client.Timeout, "within 0.2 s"):
                connect("silent:1", timeout=0.2)

    def test_no_answer_to_the_first_request(self):
        with Script(conversation(then="wait")) as server:
            with self.assertRaisesRegex(gpio_client.Timeout, "within 0.2 s"):
                connect(server.address, timeout=0.2)

    def test_the_time_limit_is_for_the_whole_answer(self):
        def dribble(connection):
            connection.recv(3)
            connection.sendall(b"I0000I\n")
            connection.recv(3)
            for _ in range(100):
                connection.sendall(b"\n")
                time.sleep(0.05)

        with Script(dribble) as server, connect(server.address, timeout=1) as client:
            began = time.monotonic()
            with self.assertRaises(gpio_client.Timeout):
                client.read_all()
            self.assertLess(time.monotonic() - began, 4)

    def test_after_a_timeout_the_client_is_closed(self):
        with Script(conversation(TEST_PROBE, (b"R00", b""), then="wait")) as server:
            with connect(server.address, timeout=1) as client:
                with self.assertRaises(gpio_client.Timeout):
                    client.read(0)
                with self.assertRaises(gpio_client.ConnectionLost):
                    client.read(0)

    def test_something_else_listens(self):
        with Script(conversation((b"I00", b"HTTP/1.1 400 Bad Request\r\n"))) as server:
            with self.assertRaisesRegex(gpio_client.Error, "GpioServer"):
                connect(server.address)

    def test_a_wrong_answer_closes_the_client(self):
        with Script(conversation(TEST_PROBE, (b"R00", b"W1W\n"), then="wait")) as server:
            with connect(server.address) as client:
                with self.assertRaisesRegex(gpio_client.Error, "not the expected protocol"):
                    client.read(0)
                with self.assertRaises(gpio_client.ConnectionLost):
                    client.read(0)

    def test_an_error_text_is_told_and_the_client_goes_on(self):
        with Script(
            conversation(
                TEST_PROBE,
                (b"R00", b"^ UNKNOWN COMMAND: R00 ^"),
                (b"R00", b"R1R\n"),
            )
        ) as server:
            with connect(server.address) as client:
                with self.assertRaises(gpio_client.ServerError) as caught:
                    client.read(0)
                self.assertEqual(caught.exception.text, "UNKNOWN COMMAND: R00")
                self.assertIs(client.read(0), True)

    def test_a_failure_digit_is_an_error_and_the_client_goes_on(self):
        with Script(
            conversation(TEST_PROBE, (b"W00", b"W0W\n"), (b"S01", b"S0S\n"), (b"R00", b"R0R\n"))
        ) as server:
            with connect(server.address) as client:
                with self.assertRaisesRegex(gpio_client.Error, "could not write pin 0"):
                    client.write(0, 0)
                with self.assertRaisesRegex(gpio_client.Error, "direction of pin 0"):
                    client.set_direction(0, "in")
                self.assertIs(client.read(0), False)

    def test_the_server_hangs_up_in_the_middle_of_an_answer(self):
        with Script(conversation(TEST_PROBE, (b"A00", b"A00"))) as server:
            with connect(server.address) as client:
                with self.assertRaisesRegex(gpio_client.ConnectionLost, "board is pulled out"):
                    client.read_all()

    def test_firmware_that_the_board_has_not_told_yet(self):
        with Script(
            conversation(BOARD_PROBE, (b"V000", b"VUnknownV\n"), (b"V000", b"Vv1.2V\n"))
        ) as server:
            with connect(server.address) as client:
                self.assertEqual([client.firmware, client.firmware], [None, "v1.2"])

    def test_an_interrupted_request_closes_the_client(self):
        with Script(conversation(TEST_PROBE, (b"R00", b""), then="wait")) as server:
            with connect(server.address) as client:
                sock = client._connection._socket
                assert sock is not None
                with mock.patch.object(
                    client._connection, "_socket", mock.Mock(wraps=sock)
                ) as wrapped:
                    wrapped.recv.side_effect = [KeyboardInterrupt, b""]
                    with self.assertRaises(KeyboardInterrupt):
                        client.read(0)
                    self.assertFalse(client._connection.is_open)
                sock.close()
                client._connection._socket = None

    def test_errors_are_those_of_python_as_well(self):
        self.assertTrue(issubclass(gpio_client.ConnectionLost, ConnectionError))
        self.assertTrue(issubclass(gpio_client.Timeout, TimeoutError))
        self.assertTrue(issubclass(gpio_client.PinError, ValueError))

    def test_server_errors_survive_pickling(self):
        error = pickle.loads(pickle.dumps(gpio_client.ServerError("message", "text")))
        self.assertEqual((str(error), error.text), ("message", "text"))


if __name__ == "__main__":
    unittest.main()
