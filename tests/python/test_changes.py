"""Iterating over changes, and the watcher, on live servers and on losses."""

import errno
import socket
import sys
import threading
import time
import unittest
from unittest import mock

import gpio_client
from support import (
    LIMIT,
    TEST_PROBE,
    BoardServer,
    BoardTest,
    Script,
    Server,
    ServerTest,
    conversation,
    eventually,
)

connect = gpio_client.connect

LISTEN = (b"L000", b"LL\n")


def levels(mask):
    return (b"A000", b"A%08xA\n" % mask)


class Recorder:
    """What a watcher tells, in order."""

    def __init__(self):
        self.told = []
        self.threads = set()

    def changed(self, change):
        self.threads.add(threading.current_thread())
        self.told.append((change.pin, change.level))

    def lost(self, error):
        self.told.append(type(error).__name__)

    def back(self):
        self.told.append("back")

    def watcher(self, address, **options):
        return gpio_client.Watcher(
            self.changed, address, on_lost=self.lost, on_back=self.back, **options
        )

    def has(self, *expected):
        return eventually(lambda: self.told == list(expected)) or self.told


class ChangesOnTheTestBackEnd(ServerTest):
    def setUp(self):
        self.client = connect(self.server.address)
        self.addCleanup(self.client.close)
        for pin in self.client.pins:
            self.client.write(pin, 0)

    def test_tells_changes_since_the_call(self):
        self.client.write(3, 1)
        changes = self.client.changes(poll=0.01)
        self.client.write(3, 0)
        self.assertEqual(next(changes)[:2], (3, False))

    def test_tells_when_it_was(self):
        changes = self.client.changes(poll=0.01)
        before = time.time()
        self.client.write(4, 1)
        change = next(changes)
        self.assertTrue(before <= change.time <= time.time())

    def test_ends_after_the_time_without_a_change(self):
        began = time.monotonic()
        self.assertEqual(list(self.client.changes(timeout=0.2)), [])
        self.assertTrue(0.2 <= time.monotonic() - began < LIMIT)

    def test_the_time_counts_from_the_call(self):
        changes = self.client.changes(timeout=1)
        time.sleep(1)
        began = time.monotonic()
        self.assertEqual(list(changes), [])
        self.assertLess(time.monotonic() - began, 0.9)

    def test_finds_a_change_although_the_time_is_shorter_than_the_interval(self):
        changes = self.client.changes(timeout=0.05, poll=60)
        self.client.write(5, 1)
        self.assertEqual([change.pin for change in changes], [5])

    def test_several_run_at_once(self):
        first, second = self.client.changes(poll=0.01), self.client.changes(poll=0.01)
        self.client.write(6, 1)
        self.assertEqual(next(first)[:2], next(second)[:2])

    def test_requests_go_on_meanwhile(self):
        found: list[gpio_client.Change] = []
        thread = threading.Thread(
            target=lambda: found.extend(self.client.changes(timeout=0.3, poll=0.01))
        )
        thread.start()
        while thread.is_alive():
            self.assertIs(self.client.read(0), False)
        self.assertEqual(found, [])

    def test_closing_the_client_ends_them(self):
        ended = []
        threads = [
            threading.Thread(target=lambda: ended.append(list(self.client.changes())))
            for _ in range(2)
        ]
        connections = self.server.connections()
        for thread in threads:
            thread.start()
        eventually(lambda: self.server.connections() == connections + 2)
        eventually(lambda: len(self.client._changes) == 2)
        self.client.close()
        for thread in threads:
            thread.join(LIMIT)
        self.assertEqual(ended, [[], []])

    def test_closing_the_client_ends_one_that_is_just_beginning(self):
        def begin(*arguments):
            closing.start()
            closing.join(0.1)
            return connection(*arguments)

        connection = gpio_client._client.Connection
        closing = threading.Thread(target=self.client.close)
        with mock.patch.object(gpio_client._client, "Connection", begin):
            changes = self.client.changes(timeout=LIMIT)
        closing.join(LIMIT)
        began = time.monotonic()
        self.assertEqual(list(changes), [])
        self.assertLess(time.monotonic() - began, LIMIT / 2)

    def test_looks_as_rarely_as_one_likes(self):
        changes = self.client.changes(poll=1e8)
        timer = threading.Timer(0.1, self.client.close)
        timer.start()
        self.assertEqual(list(changes), [])
        timer.join()

    def test_a_loop_that_is_left_hangs_up(self):
        before = self.server.text().count("EOF reached")
        self.client.write(7, 1)
        changes = self.client.changes(poll=0.01)
        self.client.write(7, 0)
        for _ in changes:
            break
        del changes
        self.assertTrue(eventually(lambda: self.server.text().count("EOF reached") > before))

    def test_refuses_times_that_are_none(self):
        wrong: list[dict[str, float]] = [
            {"timeout": 0},
            {"timeout": -1},
            {"poll": 0},
            {"poll": float("inf")},
        ]
        for options in wrong:
            with self.subTest(**options), self.assertRaises(ValueError):
                self.client.changes(**options)

    def test_cannot_begin_on_a_closed_client(self):
        self.client.close()
        with self.assertRaises(gpio_client.ConnectionLost):
            self.client.changes()

    def test_only_the_first_connection_asks_for_the_back_end(self):
        probes = self.server.text().count("Going to handle command [I00]")
        with connect(self.server.address) as client:
            list(client.changes(timeout=0.01))
            list(client.changes(timeout=0.01))
        self.assertEqual(self.server.text().count("Going to handle command [I00]") - probes, 1)


class ChangesOnTheBoard(BoardTest):
    def setUp(self):
        self.board.inputs()
        self.client = connect(self.board.address)
        self.addCleanup(self.client.close)
        eventually(lambda: not any(self.client.read(pin) for pin in range(13, 29)))

    def test_tells_each_edge_in_order(self):
        changes = self.client.changes()
        found = []
        for pins in ((13,), (13, 20), (20,), (20, 28), ()):
            self.board.inputs(*pins)
            found.append(next(changes)[:2])
        found.append(next(changes)[:2])
        self.assertEqual(
            found, [(13, True), (20, True), (13, False), (28, True), (20, False), (28, False)]
        )

    def test_tells_no_outputs(self):
        changes = self.client.changes(poll=0.01, timeout=0.2)
        self.client.write(1, 1)
        self.assertEqual(list(changes), [])
        self.client.write(1, 0)

    def test_the_loss_of_the_board_ends_them_and_the_client(self):
        changes = self.client.changes()
        self.board.unplug()
        with self.assertRaises(gpio_client.ConnectionLost):
            next(changes)
        self.assertRaises(StopIteration, next, changes)
        with self.assertRaises(gpio_client.ConnectionLost):
            self.client.read(13)
        self.board.plug()


class WhatTheServerTells(unittest.TestCase):
    """With a scripted server, to the byte."""

    def found(self, *turns, **options):
        probe = conversation((b"I00", b"^INVALID COMMAND: I00^"), then="leave")
        server = Script(probe, conversation(*turns, then="repeat"))
        # It hangs up first, so that the client need not wait for it.
        with connect(server.address) as client, server:
            return [change[:2] for change in client.changes(timeout=0.3, **options)]

    def test_all_pins_are_read_until_the_first_message(self):
        self.assertEqual(
            self.found(LISTEN, levels(1), levels(1), levels(0), poll=0.05), [(13, False)]
        )

    def test_afterwards_only_messages_tell(self):
        self.assertEqual(self.found(LISTEN, (b"A000", b"A00000000A\nU2000|2000U\n"), poll=0.01), [])

    def test_a_message_within_the_answer_is_newer_than_it(self):
        self.assertEqual(
            self.found(
                LISTEN,
                levels(0),
                (b"A000", b"A0000U2000|2000U\n0000A\n"),
                poll=0.01,
            ),
            [(13, True)],
        )

    def test_a_first_message_that_says_nothing_new_tells_nothing(self):
        self.assertEqual(self.found(LISTEN, (b"A000", b"A00000001A\nU2000|2000U\n"), poll=0.01), [])


class Watching(unittest.TestCase):
    def setUp(self):
        self.server = Server("--test", "--debug")
        self.addCleanup(self.server.close)
        self.recorder = Recorder()

    def write(self, pin, level):
        with connect(self.server.address) as client:
            client.write(pin, level)

    def test_tells_changes_since_the_start_on_a_thread_of_its_own(self):
        self.write(1, 1)
        with self.recorder.watcher(self.server.address, poll=0.01):
            self.write(2, 1)
            self.assertIs(self.recorder.has((2, True)), True)
            self.write(1, 0)
            self.assertIs(self.recorder.has((2, True), (1, False)), True)
        self.assertEqual(len(self.recorder.threads), 1)
        self.assertNotIn(threading.current_thread(), self.recorder.threads)

    def test_cannot_start_without_a_server(self):
        self.server.stop()
        with self.assertRaises(gpio_client.ConnectionLost):
            self.recorder.watcher(self.server.address).start()

    def test_starts_only_once(self):
        with self.recorder.watcher(self.server.address) as watcher:
            self.assertRaises(RuntimeError, watcher.start)
        self.assertRaises(RuntimeError, watcher.start)

    def test_tells_the_loss_the_return_and_what_differs_then(self):
        self.write(3, 1)
        self.write(4, 1)
        with self.recorder.watcher(self.server.address, poll=0.01):
            self.server.stop()
            self.assertIs(self.recorder.has("ConnectionLost"), True)
            self.server.start()
            self.assertIs(self.recorder.has("ConnectionLost", "back", (3, False), (4, False)), True)

    def test_a_return_does_not_ask_for_the_back_end_again(self):
        with self.recorder.watcher(self.server.address, poll=0.01):
            self.server.stop()
            self.server.start()
            self.assertIs(self.recorder.has("ConnectionLost", "back"), True)
            self.assertNotIn("[I00]", self.server.text())

    def test_without_reconnecting_the_loss_is_told_once_and_is_the_end(self):
        watcher = self.recorder.watcher(self.server.address, poll=0.01, reconnect=False)
        watcher.start()
        self.server.stop()
        self.assertTrue(eventually(lambda: watcher._thread and not watcher._thread.is_alive()))
        self.assertEqual(self.recorder.told, ["ConnectionLost"])
        watcher.close()

    def test_an_exception_of_a_callback_goes_to_the_hook_and_ends_nothing(self):
        seen, told = [], []

        def hook(arguments):
            seen.append(str(arguments.exc_value))
            raise RuntimeError("the hook fails as well")

        def fail(change):
            told.append(change.pin)
            raise RuntimeError(f"pin {change.pin}")

        with mock.patch.object(threading, "excepthook", hook), mock.patch.object(sys, "excepthook"):
            with gpio_client.Watcher(fail, self.server.address, poll=0.01):
                self.write(5, 1)
                self.assertTrue(eventually(lambda: told == [5]))
                self.write(6, 1)
                self.assertTrue(eventually(lambda: told == [5, 6]))
        self.assertEqual(seen, ["pin 5", "pin 6"])

    def test_a_callback_may_close_it(self):
        closed = threading.Event()

        def close(_):
            watcher.close()
            closed.set()

        watcher = gpio_client.Watcher(close, self.server.address, poll=0.01)
        watcher.start()
        self.write(7, 1)
        self.assertTrue(closed.wait(LIMIT))
        self.assertTrue(eventually(lambda: watcher._thread and not watcher._thread.is_alive()))

    def test_tries_again_when_there_are_too_many_files_for_a_moment(self):
        with self.recorder.watcher(self.server.address, poll=0.01):
            self.server.stop()
            results = [OSError(errno.EMFILE, "many"), socket.socketpair()]
            with mock.patch.object(socket, "socketpair", side_effect=results):
                self.server.start()
                self.assertIs(self.recorder.has("ConnectionLost", "back"), True)

    def test_closes_while_it_tries_to_connect(self):
        watcher = self.recorder.watcher(self.server.address, poll=0.01)
        watcher.start()
        self.server.stop()
        self.assertIs(self.recorder.has("ConnectionLost"), True)
        watcher.close()
        self.assertFalse(watcher._thread.is_alive())

    def test_asks_for_the_back_end_again_when_answers_are_wrong(self):
        with Script(
            conversation(TEST_PROBE, (b"A00", b"A0000A\n"), (b"A00", b"nonsense")),
            conversation(TEST_PROBE, (b"A00", b"A0001A\n"), then="repeat"),
        ) as server:
            with self.recorder.watcher(server.address, poll=0.01):
                self.assertIs(self.recorder.has("Error", "back", (0, True)), True)


class WatchingTheBoard(unittest.TestCase):
    def test_ends_with_the_right_state_after_edges_and_a_loss(self):
        recorder = Recorder()
        with BoardServer() as board, recorder.watcher(board.address):
            board.inputs(13)
            self.assertIs(recorder.has((13, True)), True)
            board.unplug()
            self.assertIs(recorder.has((13, True), "ConnectionLost"), True)
            board.inputs(14)
            board.plug()
            expected = ((13, True), "ConnectionLost", "back", (13, False), (14, True))
            self.assertIs(recorder.has(*expected), True)


if __name__ == "__main__":
    unittest.main()
