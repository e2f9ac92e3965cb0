"""Boards that come, go and get stuck: on the virtual board."""

from __future__ import annotations

import json
import signal
import time
import unittest

from harness import TIME_SCALE, BoardServer, Observer, TestCase, eventually

OUTPUTS = range(13)


class BoardTest(TestCase):
    def setUp(self) -> None:
        super().setUp()
        self.broker = self.start_broker()
        self.server = self.keep(BoardServer("--inputs", "03", "00", "--firmware", "2", "5"))
        self.observer = self.keep(Observer(self.broker.port))
        self.bridge = self.start_bridge(self.server.address, self.broker)
        self.told("bridge", "online")

    def told(self, what: str, payload: str) -> None:
        self.assert_told(self.observer, f"gpio/lab1/{what}", payload, self.bridge)

    def states(self, pins: range) -> list[str | None]:
        return [self.observer.newest(f"gpio/lab1/{pin}/state") for pin in pins]

    def errors(self) -> list[dict]:
        return [json.loads(text) for text in self.observer.payloads("gpio/lab1/error")]

    def test_tells_what_is_known_of_the_board(self) -> None:
        self.assertEqual(self.states(range(0, 1)), ["None"])
        self.assertEqual(self.states(range(1, 9)), ["OFF"] * 8)
        self.assertEqual(self.states(range(9, 13)), ["None"] * 4)
        self.assertEqual(self.states(range(13, 29)), ["ON", "ON"] + ["OFF"] * 14)
        document = json.loads(self.observer.payloads("homeassistant/device/gpio_lab1/config")[-1])
        self.assertEqual(document["dev"]["sw"], "v2.5")
        self.assertEqual(document["cmps"]["p12"]["p"], "switch")
        self.assertEqual(document["cmps"]["p13"]["p"], "binary_sensor")

    def test_inputs_follow_the_board(self) -> None:
        self.server.inputs(15, 28)
        self.told("15/state", "ON")
        self.told("28/state", "ON")
        self.told("13/state", "OFF")

    def test_every_pulse_of_an_input_is_told_while_the_broker_keeps_up(self) -> None:
        self.observer.clear()
        for _ in range(20):
            for pins, text in (((13, 14, 15), "ON"), ((13, 14), "OFF")):
                self.server.inputs(*pins)
                self.told("15/state", text)
        self.assertEqual(self.observer.payloads("gpio/lab1/15/state"), ["ON", "OFF"] * 20)

    def test_a_change_without_a_notice_is_told(self) -> None:
        self.server.inputs()
        self.told("13/state", "OFF")
        self.told("14/state", "OFF")

    def test_outputs_that_nobody_remembers_are_known_once_written(self) -> None:
        self.observer.publish("gpio/lab1/12/set", "ON")
        self.told("12/state", "ON")
        # The board counts its outputs in another order: 12 is its 11th.
        self.server.command("wait output-11 1 10000")

    def test_levels_that_others_set_are_told(self) -> None:
        self.server.send("W041")
        self.told("4/state", "ON")

    def test_commands_for_one_pin_are_carried_out_in_order(self) -> None:
        # States may be joined on a busy machine; the board saw every write.
        self.server.command("log clear")
        for level in ["ON", "OFF"] * 10:
            self.observer.publish("gpio/lab1/3/set", level)
        expected = " ".join(["2=1", "2=0"] * 10)
        self.assertTrue(
            eventually(lambda: self.server.command("log") == expected), self.server.command("log")
        )

    def test_a_board_that_was_unplugged_has_unknown_outputs_until_they_are_written(self) -> None:
        self.observer.publish("gpio/lab1/3/set", "ON")
        self.told("3/state", "ON")
        self.server.command("unplug")
        self.told("board", "offline")
        # One message after the other: the last pin's state comes later than the first one's.
        self.assertTrue(eventually(lambda: self.states(OUTPUTS) == ["None"] * 13))
        self.observer.publish("gpio/lab1/3/set", "ON")
        self.assertTrue(eventually(lambda: self.errors() != []))
        self.assertEqual(self.errors()[0]["pin"], 3)
        self.server.command("log clear")
        self.server.command("inputs 02 00 quiet")
        self.server.command("plug")
        self.told("board", "online")
        self.assertEqual(self.states(OUTPUTS), ["None"] * 13)
        self.assertEqual(self.states(range(13, 15)), ["OFF", "ON"])
        self.assertEqual(self.server.command("stats output-writes"), "0")
        self.observer.publish("gpio/lab1/3/set", "OFF")
        self.told("3/state", "OFF")

    def test_after_the_loss_of_the_server_outputs_are_unknown_until_a_reading_differs(self) -> None:
        self.server.stop()
        self.told("board", "offline")
        self.told("3/state", "None")
        self.server.start()
        self.told("board", "online")
        self.assertEqual(self.states(OUTPUTS), ["None"] * 13)
        self.server.send("W031")
        self.told("3/state", "ON")
        self.assertEqual(self.states(range(4, 9)), ["None"] * 5)

    def test_a_server_that_does_not_answer_counts_as_away(self) -> None:
        begin = time.monotonic()
        self.server.process.pause()
        self.told("board", "offline")
        self.assertLess(time.monotonic() - begin, 15 * TIME_SCALE + 2)
        self.server.process.resume()
        self.told("board", "online")

    def test_a_stuck_server_does_not_delay_the_end(self) -> None:
        self.server.process.pause()
        self.observer.publish("gpio/lab1/3/set", "ON")
        begin = time.monotonic()
        self.bridge.send_signal(signal.SIGTERM)
        self.assertEqual(self.bridge.wait(), 0)
        self.assertLess(time.monotonic() - begin, 2)
        self.assertEqual(self.observer.newest("gpio/lab1/bridge"), "offline")


if __name__ == "__main__":
    unittest.main()
