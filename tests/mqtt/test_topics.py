"""Topics, payloads and their order, on the test back end."""

from __future__ import annotations

import json
import unittest

from harness import ObservedTestCase, eventually, retained


class TopicsTest(ObservedTestCase):
    def errors(self) -> list[dict]:
        return [json.loads(text) for text in self.observer.payloads("gpio/lab1/error")]

    def assert_error(self, pin: int | None, reason: str) -> None:
        self.assertTrue(eventually(lambda: self.errors() != []), "no error was told")
        self.assertEqual(self.errors(), [{"pin": pin, "reason": reason}])

    def test_tells_everything_then_the_board_and_at_last_the_bridge(self) -> None:
        self.start()
        topics = [m.topic for m in self.observer.seen()]
        self.assertEqual(topics[-2:], ["gpio/lab1/board", "gpio/lab1/bridge"])
        self.assertEqual(
            set(topics[:-2]),
            {"homeassistant/device/gpio_lab1/config"} | {f"gpio/lab1/{n}/state" for n in range(16)},
        )

    def test_retains_availability_and_states(self) -> None:
        self.start()
        held = retained(self.broker.port)
        self.assertEqual(held["gpio/lab1/bridge"], "online")
        self.assertEqual(held["gpio/lab1/board"], "online")
        self.assertEqual(held["gpio/lab1/15/state"], "OFF")

    def test_a_command_drives_the_pin_and_is_answered_by_a_state(self) -> None:
        bridge = self.start()
        self.observer.publish("gpio/lab1/3/set", "ON")
        self.assert_told(self.observer, "gpio/lab1/3/state", "ON", bridge)
        self.assertEqual(self.server.send("R30"), "R1R")

    def test_a_command_that_changes_nothing_is_answered_too(self) -> None:
        self.start()
        self.observer.clear()
        self.observer.publish("gpio/lab1/3/set", "OFF")
        self.assertTrue(eventually(lambda: self.observer.payloads("gpio/lab1/3/state") == ["OFF"]))

    def test_writes_nothing_at_start(self) -> None:
        self.server.send("W31")
        self.start()
        self.assertEqual(self.observer.newest("gpio/lab1/3/state"), "ON")
        self.assertEqual(self.server.send("A00"), "A0008A")

    def test_levels_that_others_set_are_told(self) -> None:
        bridge = self.start()
        self.server.send("W51")
        self.assert_told(self.observer, "gpio/lab1/5/state", "ON", bridge)

    def test_a_payload_but_on_and_off_is_an_error(self) -> None:
        self.start()
        self.observer.publish("gpio/lab1/3/set", "on")
        self.assert_error(3, "not ON or OFF")

    def test_payloads_of_any_bytes_and_size_are_errors(self) -> None:
        bridge = self.start()
        payloads = [b"", b"\0\xff\xfe", b"ON\0", b"x" * 5_000_000]
        for payload in payloads:
            self.observer.publish("gpio/lab1/3/set", payload)
        self.assertTrue(eventually(lambda: len(self.errors()) == len(payloads)))
        self.assertIsNone(bridge.process.poll())
        self.assertEqual(self.server.send("R30"), "R0R")

    def test_a_command_for_an_input_is_an_error(self) -> None:
        self.server.send("S21")
        self.start()
        self.observer.publish("gpio/lab1/2/set", "ON")
        self.assert_error(2, "the pin is an input")

    def test_a_command_for_a_pin_that_does_not_exist_is_an_error(self) -> None:
        self.start()
        self.observer.publish("gpio/lab1/16/set", "ON")
        self.assert_error(16, "no such pin")

    def test_a_pin_with_a_leading_zero_does_not_exist(self) -> None:
        self.start()
        self.observer.publish("gpio/lab1/03/set", "ON")
        self.assert_error(None, "no such pin")

    def test_a_retained_command_is_ignored_and_logged(self) -> None:
        self.observer.publish("gpio/lab1/3/set", "ON", retain=True)
        bridge = self.start()
        self.assert_logged(bridge, "ignored a retained command for pin 3")
        self.observer.publish("gpio/lab1/4/set", "ON")
        self.assert_told(self.observer, "gpio/lab1/4/state", "ON", bridge)
        self.assertEqual(self.errors(), [])
        self.assertEqual(self.server.send("R30"), "R0R")

    def test_pins_that_are_left_out_have_no_topics(self) -> None:
        self.start("--only", "3,4")
        states = {m.topic for m in self.observer.seen() if m.topic.endswith("/state")}
        self.assertEqual(states, {"gpio/lab1/3/state", "gpio/lab1/4/state"})
        self.observer.publish("gpio/lab1/5/set", "ON")
        self.assert_error(5, "not offered by this bridge")

    def test_states_of_pins_that_are_no_longer_offered_are_cleared(self) -> None:
        self.start().end()
        self.observer.clear()
        self.start("--only", "3")
        states = [topic for topic in retained(self.broker.port) if topic.endswith("/state")]
        self.assertEqual(states, ["gpio/lab1/3/state"])

    def test_a_flood_of_wrong_commands_leaves_a_bounded_number_of_errors(self) -> None:
        self.start()
        for _ in range(2000):
            self.observer.publish("gpio/lab1/3/set", "x", waits=False)
        self.assertTrue(self.observer.switches_on("gpio/lab1/3"))

    def test_the_base_may_have_several_levels(self) -> None:
        bridge = self.start_bridge(self.server.address, self.broker, "--base", "a/b c")
        self.assert_told(self.observer, "a/b c/lab1/bridge", "online", bridge)
        self.observer.publish("a/b c/lab1/3/set", "ON")
        self.assert_told(self.observer, "a/b c/lab1/3/state", "ON", bridge)

    def test_forgetting_clears_everything_of_this_id(self) -> None:
        self.observer.publish("gpio/lab1/7/set", "ON", retain=True)
        self.observer.publish("homeassistant/switch/gpio_lab1/p3/config", "{}", retain=True)
        self.observer.publish("gpio/lab2/bridge", "online", retain=True)
        self.start().end()
        forgetting = self.start_bridge("127.0.0.1:1", self.broker, "--forget")
        self.assertEqual(forgetting.wait(), 0, forgetting.text())
        self.assertEqual(retained(self.broker.port), {"gpio/lab2/bridge": "online"})

    def test_forgetting_fails_without_a_broker(self) -> None:
        self.broker.stop()
        forgetting = self.start_bridge("127.0.0.1:1", self.broker, "--forget")
        self.assertEqual(forgetting.wait(), 1)
        self.assertIn("not reached", forgetting.text())


if __name__ == "__main__":
    unittest.main()
