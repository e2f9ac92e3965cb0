#!/usr/bin/env python3
"""What the firmware does on its pins and on the serial line, in simulated time."""

from __future__ import annotations

import contextlib
import random
import statistics
import unittest
from typing import List

from simulator import (
    BYTE,
    Byte,
    Message,
    Simulator,
    cycles,
    elf,
    eventually,
    messages,
    milliseconds,
    of_letter,
)

READ = b"R00r"
VERSION = b"V00v"
RESTART = b"K\x00\x00k"
ALL_LOW = "0" * 13
OUTPUT_COUNT = 13
BURST = 16
REPORTS_PER_SECOND = 40
RESTART_MS = 500
WATCHDOG_LIMIT_MS = 2000
RAM_LIMIT = 512


def write(pin: int, value: int) -> bytes:
    return bytes((ord("W"), pin, value, ord("w")))


def levels(message: Message) -> "tuple[int, int]":
    return message.data[1], message.data[2]


class WireTest(unittest.TestCase):
    ELF = "FIRMWARE_ELF"

    def setUp(self) -> None:
        self.board = Simulator(elf(self.ELF))
        self.addCleanup(self.board.close)
        self.board.run_ms(1)

    def power_cycle(self) -> None:
        self.board.command("power-cycle")
        self.board.run_ms(1)

    def read_inputs(self) -> None:
        """The first read request, which makes the board report changes."""
        self.assertEqual(self.board.ask(READ)[0:1], b"R")

    def sent_messages(self) -> List[Message]:
        return messages(self.board.sent())

    def reports(self) -> List[Message]:
        return of_letter("I", self.sent_messages())


class Start(WireTest):
    def test_drives_all_outputs_low(self) -> None:
        self.assertEqual(self.board.outputs(), ALL_LOW)

    def test_drives_no_output_high_on_the_way(self) -> None:
        self.assertFalse([e for e in self.board.events() if "1" in e.text])

    def test_leaves_the_bridge_alone(self) -> None:
        self.assertEqual(self.board.bridge_reset(), "released")
        self.assertEqual(
            [e.text for e in self.board.events() if "bridge" in e.text], ["bridge-reset released"]
        )

    def test_is_silent_until_it_is_asked(self) -> None:
        self.board.toggle(0xFF, 0xFF, cycles(7))
        self.board.run_ms(1000)
        self.assertEqual(self.board.sent(), [])

    def test_takes_memory_as_it_finds_it(self) -> None:
        self.power_cycle()
        self.assertEqual(self.board.ask(READ + VERSION), b"R\x00\x00rV\x01\x00v")


class Requests(WireTest):
    def test_version_is_answered(self) -> None:
        self.assertEqual(self.board.ask(VERSION), b"V\x01\x00v")

    def test_read_is_answered_with_both_ports(self) -> None:
        for a, b in ((0x00, 0x00), (0x12, 0x34), (0xFF, 0x00), (0x00, 0xFF), (ord("r"), ord("R"))):
            with self.subTest(a=a, b=b):
                self.board.inputs(a, b)
                self.power_cycle()
                self.assertEqual(self.board.ask(READ), bytes((ord("R"), a, b, ord("r"))))

    def test_data_bytes_of_a_request_do_not_matter(self) -> None:
        for request in (b"V\x00\xffv", b"VVvv", b"Vrrv"):
            with self.subTest(request=request):
                self.assertEqual(self.board.ask(request), b"V\x01\x00v")

    def test_each_request_is_answered_in_its_order(self) -> None:
        answer = self.board.ask(READ + VERSION + VERSION + READ)
        self.assertEqual(answer, b"R\x00\x00rV\x01\x00vV\x01\x00vR\x00\x00r")

    def test_unknown_letters_are_not_answered(self) -> None:
        known = b"RVWK"
        for letter in range(256):
            if letter not in known:
                self.board.receive((letter, 0, 0, letter | 0x20))
        self.assertEqual(self.board.ask(VERSION, 120), b"V\x01\x00v")
        self.assertEqual(self.board.outputs(), ALL_LOW)

    def test_message_is_found_at_any_place_in_other_bytes(self) -> None:
        for before in (b"x", b"V", b"VV", b"V0", b"R00", b"RRR", b"\x00\xff"):
            with self.subTest(before=before):
                self.assertEqual(self.board.ask(before + VERSION), b"V\x01\x00v")

    def test_bytes_of_a_message_are_not_part_of_another(self) -> None:
        self.assertEqual(self.board.ask(b"RV0rv"), b"R\x00\x00r")

    def test_incomplete_message_waits_for_its_end(self) -> None:
        self.assertEqual(self.board.ask(b"V00", 1000), b"")
        self.assertEqual(self.board.ask(b"v"), b"V\x01\x00v")

    def test_damaged_byte_spoils_its_message_and_no_other(self) -> None:
        damaged: List[Byte] = [ord("W"), 3, "31!", ord("w")]
        self.assertEqual(self.board.ask(damaged + list(VERSION)), b"V\x01\x00v")
        self.assertEqual(self.board.outputs(), ALL_LOW)
        inserted: List[Byte] = [ord("W"), "33!", 3, ord("1"), ord("w")]
        self.board.ask(inserted)
        self.assertEqual(self.board.outputs(), ALL_LOW)

    def test_noise_gets_no_answer(self) -> None:
        noise = random.Random(1)
        self.board.receive(noise.choice(b"rvwk0123\x00\xffAZaz") for _ in range(4000))
        self.board.run_ms(400)
        self.assertEqual(self.board.sent(), [])
        self.assertEqual(self.board.ask(VERSION), b"V\x01\x00v")


class Outputs(WireTest):
    def test_each_pin_is_driven_alone(self) -> None:
        for pin in range(OUTPUT_COUNT):
            with self.subTest(pin=pin):
                self.assertEqual(self.board.ask(write(pin, ord("1"))), b"")
                self.assertEqual(
                    self.board.outputs(), "".join("1" if p == pin else "0" for p in range(13))
                )
                self.board.ask(write(pin, ord("0")))
                self.assertEqual(self.board.outputs(), ALL_LOW)

    def test_pins_are_cleared_alone(self) -> None:
        for pin in range(OUTPUT_COUNT):
            self.board.ask(write(pin, ord("1")))
        self.assertEqual(self.board.outputs(), "1" * 13)
        for pin in range(OUTPUT_COUNT):
            self.board.ask(write(pin, ord("0")))
            self.assertEqual(self.board.outputs(), "0" * (pin + 1) + "1" * (12 - pin))

    def test_pins_that_do_not_exist_are_taken_without_effect(self) -> None:
        for pin in range(OUTPUT_COUNT, 256):
            self.board.receive(write(pin, ord("1")))
        self.assertEqual(self.board.ask(VERSION, 120), b"V\x01\x00v")
        self.assertEqual(self.board.outputs(), ALL_LOW)
        self.assertEqual(self.board.bridge_reset(), "released")

    def test_values_that_are_no_digit_are_taken_without_effect(self) -> None:
        self.board.ask(write(1, ord("1")))
        for value in [v for v in range(256) if v not in b"01"]:
            self.board.receive(write(0, value) + write(1, value))
        self.assertEqual(self.board.ask(VERSION, 250), b"V\x01\x00v")
        self.assertEqual(self.board.outputs(), "01" + "0" * 11)

    def test_are_kept_while_no_host_is_there(self) -> None:
        self.board.ask(write(4, ord("1")))
        self.board.run_ms(20_000)
        self.assertEqual(self.board.outputs(), "0000100000000")
        self.assertEqual(self.board.statistic("watchdog-resets"), 0)

    def test_level_changes_at_the_end_of_the_message(self) -> None:
        self.board.events()
        begin = self.board.now
        self.board.receive(write(0, ord("1")))
        self.board.run_ms(2)
        change = self.board.events()[0]
        self.assertLess(change.at - begin - 4 * BYTE, cycles(0.2))


class Inputs(WireTest):
    def test_each_change_of_each_pin_is_reported(self) -> None:
        self.read_inputs()
        for bit in range(16):
            a, b = 1 << bit & 0xFF, 1 << bit >> 8
            with self.subTest(bit=bit):
                self.board.inputs(a, b)
                self.board.run_ms(50)
                self.assertEqual(self.board.sent_bytes(), bytes((ord("I"), a, b, ord("i"))))
                self.board.inputs(0, 0)
                self.board.run_ms(50)
                self.assertEqual(self.board.sent_bytes(), b"I\x00\x00i")

    def test_open_ones_read_high(self) -> None:
        self.board.inputs(0, 0, 0x00, 0x00)
        self.board.run_ms(1)
        self.assertEqual(self.board.ask(READ), b"R\xff\xffr")

    def test_changes_at_the_same_time_are_one_report(self) -> None:
        self.read_inputs()
        self.board.inputs(0xA5, 0x5A)
        self.board.run_ms(50)
        self.assertEqual(self.board.sent_bytes(), b"I\xa5\x5ai")


class Reports(WireTest):
    def test_first_read_is_what_changes_are_measured_against(self) -> None:
        self.board.inputs(0x11, 0x22)
        self.board.run_ms(1)
        self.assertEqual(self.board.ask(READ, 500), b"R\x11\x22r")

    def test_version_request_starts_no_reports(self) -> None:
        self.board.ask(VERSION)
        self.board.inputs(0x01, 0x00)
        self.board.run_ms(500)
        self.assertEqual(self.board.sent(), [])

    def test_burst_is_followed_by_forty_a_second(self) -> None:
        self.read_inputs()
        self.board.toggle(0x01, 0x00, cycles(5))
        self.board.run_ms(2000)
        starts = [message.start for message in self.reports()]
        self.assertAlmostEqual(len(starts), BURST + 2 * REPORTS_PER_SECOND, delta=2)
        # In the burst's 80 ms, some more are allowed already.
        burst = [s for s in starts if s - starts[0] < cycles(80)]
        self.assertGreaterEqual(len(burst), BURST)
        self.assertLessEqual(len(burst), BURST + 3)
        later = [s for s in starts if s - starts[0] > cycles(200)]
        gaps = [milliseconds(second - first) for first, second in zip(later, later[1:])]
        self.assertGreater(min(gaps), 19)
        self.assertAlmostEqual(statistics.mean(gaps), 25, delta=0.5)

    def test_burst_comes_back_with_rest(self) -> None:
        self.read_inputs()
        for _ in range(2):
            self.board.toggle(0x01, 0x00, cycles(1))
            self.board.run_ms(20)
            self.board.toggle(0x00, 0x00, 0)
            self.assertEqual(len(self.reports()), BURST)
            self.board.run_ms(450)
            self.board.sent()

    def test_rest_does_not_allow_more_than_the_burst(self) -> None:
        self.read_inputs()
        self.board.run_ms(5000)
        self.board.toggle(0x01, 0x00, cycles(1))
        self.board.run_ms(24)
        self.assertEqual(len(self.reports()), BURST)

    def test_newest_levels_are_always_the_last_told(self) -> None:
        self.read_inputs()
        for last in range(1, 9):
            for number in range(40):
                self.board.inputs(number, 0xFF - number)
                self.board.run_ms(0.7)
            self.board.inputs(last, 0x80 | last)
            self.board.run_ms(26)
            self.assertEqual(levels(self.reports()[-1]), (last, 0x80 | last))

    def test_later_read_suppresses_none(self) -> None:
        self.read_inputs()
        self.board.toggle(0x01, 0x00, cycles(1))
        self.board.run_ms(18)
        self.board.toggle(0x00, 0x00, 0)
        self.board.inputs(0x40, 0x00)
        self.board.sent()
        self.assertEqual(self.board.ask(READ, 1), b"R\x40\x00r")
        self.board.run_ms(30)
        self.assertEqual(self.board.sent_bytes(), b"I\x40\x00i")

    def test_request_is_answered_within_twelve_bytes_whatever_the_inputs_do(self) -> None:
        self.read_inputs()
        self.board.toggle(0xFF, 0xFF, cycles(5))
        self.board.run_ms(500)
        for _ in range(20):
            self.assertIn(b"V\x01\x00v", self.board.ask(VERSION, 7)[:12])

    def test_request_is_answered_within_twelve_bytes_in_a_burst(self) -> None:
        self.read_inputs()
        for period in (701, cycles(0.25), cycles(0.3), cycles(0.35)):
            with self.subTest(period=period):
                self.board.toggle(0xFF, 0xFF, period)
                self.assertIn(b"V\x01\x00v", self.board.ask(VERSION, 2)[:12])
                self.board.toggle(0x00, 0x00, 0)
                self.board.run_ms(500)


class Floods(WireTest):
    def assert_nothing_lost(self) -> None:
        self.assertEqual(self.board.statistic("overruns"), 0)
        self.assertEqual(self.board.statistic("watchdog-resets"), 0)

    def test_three_thousand_requests_are_all_answered(self) -> None:
        self.board.inputs(0x55, 0xAA)
        self.board.receive(READ * 3000)
        self.board.run_ms(1100)
        self.assertEqual(self.board.sent_bytes(), b"R\x55\xaar" * 3000)
        self.assert_nothing_lost()

    def test_three_thousand_requests_with_restless_inputs_are_all_answered(self) -> None:
        self.read_inputs()
        self.board.command(f"pace {BYTE * 98 // 100}")
        for period in (101, 701, cycles(0.3)):
            with self.subTest(period=period):
                self.board.toggle(0xFF, 0xFF, period)
                self.board.receive(VERSION * 3000)
                self.board.run_ms(1200)
                sent = self.sent_messages()
                self.assertEqual(len(of_letter("V", sent)), 3000)
                self.assertGreaterEqual(len(of_letter("I", sent)), REPORTS_PER_SECOND)
                self.assert_nothing_lost()

    def test_three_thousand_writes_all_reach_their_pin(self) -> None:
        self.read_inputs()
        self.board.toggle(0xFF, 0xFF, 211)
        self.board.events()
        self.board.receive(
            b"".join(write(n // 2 % OUTPUT_COUNT, ord("1") - n % 2) for n in range(3000))
        )
        self.board.run_ms(1100)
        self.assertEqual(len(self.board.events()), 3000)
        self.assertEqual(self.board.outputs(), ALL_LOW)
        self.assert_nothing_lost()

    def test_more_requests_than_can_be_owed_spoil_no_answer(self) -> None:
        self.read_inputs()
        self.board.command(f"pace {BYTE // 2}")
        self.board.receive(VERSION * 2000)
        self.board.run_ms(1000)
        answers = self.sent_messages()
        self.assertGreater(len(answers), 1000)
        self.board.command(f"pace {BYTE}")
        self.assertEqual(self.board.ask(READ), b"R\x00\x00r")

    def test_answer_leaves_no_gap_between_bytes(self) -> None:
        self.board.receive(VERSION * 100)
        self.board.run_ms(40)
        starts = [byte.start for byte in self.board.sent()]
        self.assertEqual({second - first for first, second in zip(starts[:4], starts[1:4])}, {BYTE})


class Restart(WireTest):
    def setUp(self) -> None:
        super().setUp()
        self.read_inputs()
        for pin in (0, 7, 8, 12):
            self.board.ask(write(pin, ord("1")))
        self.board.events()

    def texts(self) -> List[str]:
        return [event.text for event in self.board.events()]

    def test_turns_the_outputs_off_at_once(self) -> None:
        self.board.receive(RESTART)
        self.board.run_ms(1)
        self.assertEqual(self.board.outputs(), ALL_LOW)

    def test_pulls_the_bridge_low_for_half_a_second_and_never_drives_it_high(self) -> None:
        self.board.receive(RESTART)
        self.board.run_ms(1000)
        pulses = [event for event in self.board.events() if "bridge-reset" in event.text]
        self.assertEqual(
            [event.text for event in pulses], ["bridge-reset low", "bridge-reset released"]
        )
        duration = milliseconds(pulses[1].at - pulses[0].at)
        self.assertGreaterEqual(duration, RESTART_MS)
        self.assertLess(duration, RESTART_MS + 50)

    def test_ends_in_a_reset_by_the_watchdog(self) -> None:
        self.board.receive(RESTART)
        self.board.run_ms(1000)
        self.assertEqual(self.texts().count("reset watchdog"), 1)
        self.assertEqual(self.board.outputs(), ALL_LOW)

    def test_leaves_a_board_as_after_power_on(self) -> None:
        self.board.receive(RESTART)
        self.board.run_ms(1000)
        self.board.sent()
        self.board.inputs(0x01, 0x02)
        self.board.run_ms(1000)
        self.assertEqual(self.board.sent(), [])
        self.assertEqual(self.board.ask(READ), b"R\x01\x02r")

    def test_nothing_is_heard_or_said_meanwhile(self) -> None:
        self.board.receive(RESTART + write(3, ord("1")) + VERSION)
        self.board.run_ms(1)
        self.board.inputs(0x01, 0x00)
        self.board.run_ms(RESTART_MS - 10)
        self.assertEqual(self.board.outputs(), ALL_LOW)
        self.assertEqual(self.board.sent(), [])

    def test_message_under_way_is_finished(self) -> None:
        for stray in range(4):
            with self.subTest(stray=stray):
                self.power_cycle()
                self.read_inputs()
                self.board.toggle(0x01, 0x00, cycles(0.3))
                self.board.receive(VERSION * 2 + b"x" * stray + RESTART)
                self.board.run_ms(100)
                self.assertGreater(len(self.sent_messages()), 2)

    def test_takes_no_longer_when_it_is_asked_for_again(self) -> None:
        self.board.receive(RESTART * 500)
        self.board.run_ms(RESTART_MS + 100)
        self.assertEqual(self.texts().count("reset watchdog"), 1)

    def test_data_bytes_do_not_matter(self) -> None:
        self.board.receive(b"Kabk")
        self.board.run_ms(1)
        self.assertEqual(self.board.bridge_reset(), "low")


class Watchdog(WireTest):
    def test_ends_a_hang_within_two_seconds(self) -> None:
        self.board.ask(write(0, ord("1")))
        self.board.events()
        hung = self.board.now
        self.board.command("hang")
        self.board.run_ms(WATCHDOG_LIMIT_MS + 1000)
        resets = [event.at for event in self.board.events() if event.text == "reset watchdog"]
        self.assertEqual(len(resets), 1)
        self.assertLess(milliseconds(resets[0] - hung), WATCHDOG_LIMIT_MS)
        self.assertEqual(self.board.outputs(), ALL_LOW)
        self.assertEqual(self.board.ask(VERSION), b"V\x01\x00v")

    def test_leaves_a_working_program_alone(self) -> None:
        self.read_inputs()
        self.board.toggle(0xFF, 0xFF, 997)
        self.board.receive(VERSION * 5000)
        self.board.run_ms(10_000)
        self.assertEqual(self.board.statistic("watchdog-resets"), 0)

    def test_leaves_a_restarted_program_alone(self) -> None:
        self.board.receive(RESTART)
        self.board.run_ms(5000)
        self.assertEqual(self.board.statistic("watchdog-resets"), 1)


class Latency(WireTest):
    SAMPLES = 200

    def show(self, what: str, values: List[float]) -> None:
        print(
            f"{what}: median {statistics.median(values):.3f} ms, "
            f"worst {max(values):.3f} ms of {len(values)}"
        )

    def test_edge_to_first_bit(self) -> None:
        self.read_inputs()
        phase = random.Random(2)
        delays = []
        for _ in range(self.SAMPLES):
            self.board.sent()
            period = cycles(30) + phase.randrange(cycles(1))
            begin = self.board.now
            self.board.toggle(0x10, 0x00, period)
            self.board.run(period + cycles(5))
            first = self.reports()[0]
            delays.append(milliseconds(first.start - begin - period))
            self.board.inputs(*levels(first))
            self.board.toggle(0x00, 0x00, 0)
        self.show("edge to first bit", delays)
        self.assertGreaterEqual(min(delays), 0)
        self.assertLessEqual(statistics.median(delays), 0.1)
        self.assertLessEqual(max(delays), 0.2)

    def test_request_to_answer(self) -> None:
        phase = random.Random(3)
        delays = []
        for _ in range(self.SAMPLES):
            self.board.sent()
            begin = self.board.now
            pace = BYTE + phase.randrange(400)  # spreads the ends over a tick
            self.board.command(f"pace {pace}")
            self.board.receive(VERSION)
            self.board.run_ms(3)
            delays.append(milliseconds(self.board.sent()[0].start - begin - 4 * pace))
        self.show("request to first bit of the answer", delays)
        self.assertLessEqual(statistics.median(delays), 0.1)
        self.assertLessEqual(max(delays), 0.2)


class Memory(WireTest):
    def test_variables_and_deepest_stack_fit_together(self) -> None:
        self.read_inputs()
        self.board.toggle(0xFF, 0xFF, 997)
        self.board.receive((READ + VERSION + write(12, ord("1"))) * 400)
        self.board.run_ms(1000)
        self.board.receive(RESTART)
        self.board.run_ms(1000)
        static = self.board.statistic("static-bytes")
        stack = self.board.statistic("stack-bytes")
        print(f"RAM: {static} bytes of variables, {stack} bytes of stack, limit {RAM_LIMIT}")
        self.assertGreater(stack, 0)
        self.assertLessEqual(static + stack, RAM_LIMIT)


class Debounce(WireTest):
    """A build that wants a level to last five milliseconds."""

    ELF = "FIRMWARE_DEBOUNCE_ELF"

    def test_chatter_is_not_reported(self) -> None:
        self.read_inputs()
        self.board.toggle(0x01, 0x80, cycles(1.7))
        self.board.run_ms(1000)
        self.board.toggle(0x00, 0x00, 0)
        self.board.run_ms(100)
        self.assertEqual(self.board.sent(), [])

    def test_lasting_change_is_reported_once_and_in_time(self) -> None:
        self.read_inputs()
        for bit in range(16):
            a, b = 1 << bit & 0xFF, 1 << bit >> 8
            for level in ((a, b), (0, 0)):
                with self.subTest(bit=bit, level=level):
                    begin = self.board.now
                    self.board.inputs(*level)
                    self.board.run_ms(60)
                    reports = self.reports()
                    self.assertEqual([levels(report) for report in reports], [level])
                    delay = milliseconds(reports[0].start - begin)
                    self.assertGreaterEqual(delay, 5)
                    self.assertLess(delay, 7)

    def test_pins_are_independent(self) -> None:
        self.read_inputs()
        self.board.toggle(0x01, 0x00, cycles(1.7))
        self.board.inputs(0x02, 0x00)
        self.board.run_ms(20)
        self.assertEqual([levels(report) for report in self.reports()], [(0x02, 0x00)])


class RealTime(unittest.TestCase):
    """Through the sockets, as the virtual bridge uses them."""

    def setUp(self) -> None:
        self.board = Simulator(elf(), stepped=False)
        self.addCleanup(self.board.close)
        self.line = self.board.line()
        self.addCleanup(self.line.close)

    def receive(self, count: int) -> bytes:
        data = b""
        while len(data) < count:
            data += self.line.recv(count - len(data))
        return data

    def test_board_has_started_before_there_is_a_line_to_it(self) -> None:
        with contextlib.closing(Simulator(elf(), stepped=False)) as board:
            self.assertGreaterEqual(int(board.command("time")), cycles(100))

    def test_line_carries_bytes_both_ways(self) -> None:
        self.line.sendall(VERSION + READ)
        self.assertEqual(self.receive(8), b"V\x01\x00vR\x00\x00r")
        # One port at a time: the firmware reads one after the other, and both may change in between.
        self.board.inputs(0x12, 0x00)
        self.assertEqual(self.receive(4), b"I\x12\x00i")
        self.board.inputs(0x12, 0x34)
        self.assertEqual(self.receive(4), b"I\x12\x34i")

    def test_host_that_does_not_read_stops_nothing(self) -> None:
        self.line.sendall(READ)
        self.receive(4)
        self.board.toggle(0xFF, 0xFF, cycles(1))
        self.line.sendall(VERSION * 1000 + write(5, ord("1")))
        self.assertTrue(eventually(lambda: self.board.outputs() == "0000010000000"))
        self.line.close()
        self.board.toggle(0x00, 0x00, 0)
        self.board.inputs(0x77, 0x01)
        with self.board.line() as self.line:
            self.line.sendall(READ)
            data = b""
            while b"R\x77\x01r" not in data:
                data += self.line.recv(256)


if __name__ == "__main__":
    unittest.main()
