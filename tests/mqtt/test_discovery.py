"""What Home Assistant is told, on the test back end."""

from __future__ import annotations

import json
import time
import unittest

import schema
from harness import ObservedTestCase, eventually, retained
from support import Script, untold_firmware

DEVICE = "homeassistant/device/gpio_lab1/config"


class DiscoveryTest(ObservedTestCase):
    def device_messages(self) -> list[dict]:
        return [json.loads(text) if text else {} for text in self.observer.payloads(DEVICE)]

    def configs(self) -> list[str]:
        return sorted(t for t in retained(self.broker.port) if t.endswith("/config"))

    def test_one_message_describes_the_device_with_all_its_pins(self) -> None:
        self.server.send("SD1")
        self.start("--pin", "3=Pump,outlet", "--pin", "13=Door,door", "--name", "Cabinet")
        (document,) = self.device_messages()
        schema.check_device(document)
        self.assertEqual(document["dev"], {"ids": ["gpio_lab1"], "name": "Cabinet"})
        self.assertEqual(document["o"]["name"], "gpio-mqtt")
        self.assertEqual(document["avty"], [{"t": "gpio/lab1/bridge"}, {"t": "gpio/lab1/board"}])
        self.assertEqual(len(document["cmps"]), 16)
        self.assertEqual(
            document["cmps"]["p3"],
            {
                "p": "switch",
                "uniq_id": "gpio_lab1_p3",
                "name": "Pump",
                "stat_t": "gpio/lab1/3/state",
                "cmd_t": "gpio/lab1/3/set",
                "dev_cla": "outlet",
            },
        )
        self.assertEqual(
            document["cmps"]["p13"],
            {
                "p": "binary_sensor",
                "uniq_id": "gpio_lab1_p13",
                "name": "Door",
                "stat_t": "gpio/lab1/13/state",
                "dev_cla": "door",
            },
        )
        self.assertEqual(document["cmps"]["p4"]["name"], "Pin 4")

    def test_a_class_that_the_platform_lacks_is_left_out(self) -> None:
        self.start("--pin", "3=Door,door")
        (document,) = self.device_messages()
        self.assertNotIn("dev_cla", document["cmps"]["p3"])

    def test_a_pin_that_is_no_longer_offered_is_removed_first_and_then_left_out(self) -> None:
        self.start("--only", "3,4").end()
        self.start("--only", "4")
        removal, final = self.device_messages()[-2:]
        self.assertEqual(removal["cmps"]["p3"], {"p": "switch"})
        self.assertEqual(set(final["cmps"]), {"p4"})
        schema.check_device(removal)

    def test_a_pin_that_becomes_an_input_is_removed_first_and_then_offered_anew(self) -> None:
        bridge = self.start("--only", "3,4")
        self.observer.clear()
        self.server.send("S31")
        if not eventually(lambda: len(self.device_messages()) == 2):
            self.fail(f"{self.device_messages()}\n{bridge.text()}")
        removal, final = self.device_messages()
        self.assertEqual(removal["cmps"]["p3"], {"p": "switch"})
        self.assertEqual(final["cmps"]["p3"]["p"], "binary_sensor")
        self.assertEqual(removal["cmps"]["p4"], final["cmps"]["p4"])

    def test_a_removal_survives_a_broker_that_takes_nothing_for_a_while(self) -> None:
        bridge = self.start("--only", "3,4,5", scale=1)
        self.observer.clear()
        self.broker.pause()
        # What is not acknowledged is limited; pins are read every 100 ms.
        for command in ["W51", "W50"] * 9 + ["S31", "S41"]:
            self.server.send(command)
            time.sleep(0.15)
        self.broker.resume()
        sensor = "binary_sensor"
        if not eventually(
            lambda: {d["cmps"]["p4"]["p"] for d in self.device_messages()[-1:]} == {sensor}
            and self.observer.newest("gpio/lab1/4/state") == "OFF"
        ):
            self.fail(f"{self.device_messages()}\n{bridge.text()}")
        removed = [d["cmps"]["p3"] for d in self.device_messages()]
        self.assertIn({"p": "switch"}, removed)

    def test_the_component_format_has_one_message_for_each_pin(self) -> None:
        self.server.send("S41")
        self.start("--discovery-format", "component", "--only", "3,4")
        switch = "homeassistant/switch/gpio_lab1/p3/config"
        sensor = "homeassistant/binary_sensor/gpio_lab1/p4/config"
        self.assertEqual(self.configs(), [sensor, switch])
        schema.check_component("switch", json.loads(self.observer.payloads(switch)[0]))
        schema.check_component("binary_sensor", json.loads(self.observer.payloads(sensor)[0]))

    def test_a_component_that_becomes_an_input_is_removed_before_it_is_offered_anew(self) -> None:
        self.start("--discovery-format", "component", "--only", "3")
        self.observer.clear()
        self.server.send("S31")
        sensor = "homeassistant/binary_sensor/gpio_lab1/p3/config"
        self.assertTrue(eventually(lambda: bool(self.observer.seen(sensor))))
        told = [(m.topic, bool(m.payload)) for m in self.observer.seen() if "config" in m.topic]
        self.assertEqual(
            told, [("homeassistant/switch/gpio_lab1/p3/config", False), (sensor, True)]
        )

    def test_a_firmware_that_the_board_has_not_told_is_left_out(self) -> None:
        server = self.keep(Script(untold_firmware))
        bridge = self.start_bridge(server.address, self.broker)
        self.assert_told(self.observer, "gpio/lab1/board", "online", bridge)
        (document,) = self.device_messages()
        self.assertEqual(document["dev"], {"ids": ["gpio_lab1"], "name": "GPIO lab1"})

    def test_a_change_to_components_clears_the_device(self) -> None:
        self.start("--only", "3").end()
        self.start("--only", "3", "--discovery-format", "component")
        self.assertEqual(self.configs(), ["homeassistant/switch/gpio_lab1/p3/config"])

    def test_a_change_to_the_device_clears_the_components(self) -> None:
        self.start("--only", "3", "--discovery-format", "component").end()
        self.start("--only", "3")
        self.assertEqual(self.configs(), [DEVICE])

    def test_without_discovery_that_of_both_formats_is_cleared(self) -> None:
        self.start("--only", "3").end()
        topic = "homeassistant/switch/gpio_lab1/p9/config"
        self.observer.publish(topic, "{}", retain=True)
        self.start("--no-discovery")
        self.assertEqual(self.configs(), [])

    def test_foreign_discovery_is_left_alone(self) -> None:
        topic = "homeassistant/switch/gpio_lab2/p9/config"
        self.observer.publish(topic, "{}", retain=True)
        self.start("--no-discovery")
        self.assertEqual(self.configs(), [topic])

    def test_what_is_no_discovery_on_the_own_topic_is_replaced(self) -> None:
        self.observer.publish(DEVICE, b"[" * 100_000, retain=True)
        self.start()
        schema.check_device(json.loads(retained(self.broker.port)[DEVICE]))

    def test_a_start_of_home_assistant_is_answered_by_everything(self) -> None:
        bridge = self.start("--discovery", "ha")
        for topic in ("homeassistant/status", "ha/status"):
            self.observer.clear()
            self.observer.publish(topic, "online")
            self.assert_told(self.observer, "gpio/lab1/bridge", "online", bridge)
            told = {m.topic for m in self.observer.seen()}
            self.assertIn("ha/device/gpio_lab1/config", told)
            self.assertIn("gpio/lab1/15/state", told)

    def test_the_end_of_home_assistant_is_answered_by_nothing(self) -> None:
        self.start()
        self.observer.clear()
        self.observer.publish("homeassistant/status", "offline")
        self.observer.publish("gpio/lab1/3/set", "ON")
        self.assertTrue(self.observer.wait_for("gpio/lab1/3/state", "ON"))
        self.assertEqual(self.device_messages(), [])


if __name__ == "__main__":
    unittest.main()
