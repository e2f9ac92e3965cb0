"""gpiozero's devices on the pins of a live server."""

import os
import subprocess
import sys
import threading
import time
import unittest
from unittest import mock

import gpio_client
from gpio_client.gpioserver import BOARD_POLL, GpioServerFactory
from gpiozero import LED, Button, Device, DigitalInputDevice, GPIODevice, InputDevice, PWMLED
from gpiozero import OutputDevice
from gpiozero.exc import (
    GPIOPinInUse,
    PinFixedPull,
    PinInvalidBounce,
    PinInvalidEdges,
    PinInvalidFunction,
    PinInvalidPin,
    PinInvalidPull,
    PinInvalidState,
    PinPWMUnsupported,
    PinSetInput,
    PinSPIUnsupported,
)
from support import LIMIT, BoardTest, Script, Server, ServerTest, conversation, eventually


def environment(**variables):
    names = ("GPIO_SERVER", "GPIO_SERVER_PULLS", "GPIO_SERVER_CLOSE", "GPIO_SERVER_POLL")
    clean = {name: value for name, value in os.environ.items() if name not in names}
    return mock.patch.dict(os.environ, {**clean, **variables}, clear=True)


class OnTheTestBackEnd(ServerTest):
    world: gpio_client.Client

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.world = gpio_client.connect(cls.server.address)
        cls.addClassCleanup(cls.world.close)

    def setUp(self):
        for pin in self.world.pins:
            self.world.set_direction(pin, "out")
            self.world.write(pin, 0)
        self.factory = self.make()

    def make(self, **variables):
        with environment(**variables):
            factory = GpioServerFactory(self.server.address)
        self.addCleanup(factory.close)
        return factory

    def button(self, pin, **options):
        options = {"pull_up": None, "active_state": True, **options}
        return Button(pin, pin_factory=self.factory, **options)

    def test_drives_an_output(self):
        led = LED(5, pin_factory=self.factory)
        led.on()
        self.assertIs(self.world.read(5), True)
        led.off()
        self.assertIs(self.world.read(5), False)

    def test_takes_pins_by_number_and_by_name(self):
        for spec in (5, "5", "GPIO5", "gpio5"):
            self.assertIs(self.factory.pin(spec), self.factory.pin(5))

    def test_refuses_what_is_no_pin(self):
        for spec in (16, -1, True, 5.0, "GPIO16", "BOARD5", "", None, ()):
            with self.subTest(spec), self.assertRaises(PinInvalidPin):
                self.factory.pin(spec)

    def test_a_pin_is_for_one_device_whatever_it_is_called(self):
        with LED(5, pin_factory=self.factory):
            with self.assertRaises(GPIOPinInUse):
                LED("GPIO5", pin_factory=self.factory)
        LED("GPIO5", pin_factory=self.factory).close()

    def test_a_pin_can_be_released_by_the_name_in_its_description(self):
        device = mock.Mock(_conflicts_with=lambda other: True)
        self.factory.reserve_pins(device, 5)
        self.factory.release_pins(device, self.factory.pin(5).info.name)
        self.factory.reserve_pins(mock.Mock(_conflicts_with=lambda other: True), "GPIO5")

    def test_describes_the_board(self):
        self.assertEqual([pin.number for _, pin in self.factory.board_info.find_pin("GPIO7")], [7])
        self.assertEqual(list(self.factory.board_info.find_pin("GPIO16")), [])

    def test_sets_directions(self):
        InputDevice(6, pull_up=None, active_state=True, pin_factory=self.factory)
        self.assertEqual(self.world.direction(6), "in")
        OutputDevice(7, pin_factory=self.factory)
        self.assertEqual(self.world.direction(7), "out")

    def test_an_edge_reaches_the_callback(self):
        pressed, released = threading.Event(), threading.Event()
        button = self.button(8)
        button.when_pressed, button.when_released = pressed.set, released.set
        self.world.write(8, 1)
        self.assertTrue(pressed.wait(LIMIT))
        self.assertTrue(button.is_pressed)
        self.world.write(8, 0)
        self.assertTrue(released.wait(LIMIT))

    def test_an_exception_of_a_callback_keeps_no_edge_from_another(self):
        factory, pressed = self.make(GPIO_SERVER_POLL="60"), threading.Event()
        first = Button(8, pull_up=None, active_state=True, pin_factory=factory)
        second = Button(9, pull_up=None, active_state=True, pin_factory=factory)
        first.when_pressed = lambda: 1 / 0
        second.when_pressed = pressed.set
        with mock.patch.object(threading, "excepthook") as hook:
            factory._levels_seen(1 << 8 | 1 << 9)
        self.assertTrue(pressed.is_set())
        hook.assert_called_once()

    def test_an_edge_right_after_construction_is_not_lost(self):
        self.button(9)
        for pin in (10, 11, 12):
            self.world.write(pin, 1)
            released = threading.Event()
            button = self.button(pin)
            button.when_released = released.set
            self.world.write(pin, 0)
            self.assertTrue(released.wait(LIMIT))

    def test_the_first_level_of_a_second_device_is_read_anew(self):
        self.button(9).close()
        self.world.write(9, 1)
        self.assertTrue(self.button(9).is_pressed)

    def test_only_the_wanted_edges_are_told(self):
        told = []
        pin = self.factory.pin(10)
        pin.function = "input"
        pin.edges = "falling"
        handler = lambda ticks, state: told.append(state)
        pin.when_changed = handler
        self.world.write(10, 1)
        self.assertTrue(eventually(lambda: pin._seen))
        self.world.write(10, 0)
        self.assertTrue(eventually(lambda: told))
        self.assertEqual(told, [0])

    def test_bounces_are_ignored_and_the_level_at_the_end_of_the_window_counts(self):
        told = []
        device = DigitalInputDevice(
            11, pull_up=None, active_state=True, bounce_time=2, pin_factory=self.factory
        )
        device.when_activated = lambda: told.append("on")
        device.when_deactivated = lambda: told.append("off")
        self.world.write(11, 1)
        self.assertTrue(eventually(lambda: told == ["on"]))
        for level in (0, 1, 0):
            self.world.write(11, level)
            self.assertTrue(eventually(lambda: device.pin._seen == bool(level)))
        self.assertEqual(told, ["on"])
        self.assertTrue(eventually(lambda: told == ["on", "off"]))

    def test_what_is_called_at_the_end_of_the_window_may_close_the_factory(self):
        factory, closed = self.make(), threading.Event()
        device = DigitalInputDevice(
            12, pull_up=None, active_state=True, bounce_time=0.2, pin_factory=factory
        )

        def close():
            time.sleep(0.1)  # the next look at the pins comes meanwhile
            factory.close()
            closed.set()

        device.when_deactivated = close
        self.world.write(12, 1)
        self.assertTrue(eventually(lambda: device.pin._timer))
        self.world.write(12, 0)
        self.assertTrue(closed.wait(LIMIT))

    def test_pulls_are_refused_with_what_to_write_instead(self):
        for pull_up in (True, False):
            with self.assertRaisesRegex(PinFixedPull, "pull_up=None with active_state=True"):
                Button(12, pull_up=pull_up, pin_factory=self.factory)
        GPIODevice(12, pin_factory=self.factory)

    def test_pulls_are_accepted_when_they_are_outside(self):
        factory = self.make(GPIO_SERVER_PULLS="external")
        self.assertFalse(Button(12, pull_up=False, pin_factory=factory).is_pressed)
        self.assertTrue(Button(13, pull_up=True, pin_factory=factory).is_pressed)

    def test_settings_with_other_values_are_refused(self):
        for name, value in (
            ("GPIO_SERVER_PULLS", "yes"),
            ("GPIO_SERVER_CLOSE", "off"),
            ("GPIO_SERVER_POLL", "often"),
            ("GPIO_SERVER_POLL", "0"),
        ):
            with self.subTest(name), self.assertRaisesRegex(gpio_client.Error, name):
                self.make(**{name: value})

    def test_has_no_pwm(self):
        with self.assertRaises(PinPWMUnsupported):
            PWMLED(4, pin_factory=self.factory)
        self.assertIsNone(self.factory.pin(4).frequency)

    def test_has_no_spi(self):
        with self.assertRaises(PinSPIUnsupported):
            self.factory.spi(port=0, device=0)

    def test_refuses_what_a_pin_cannot_be(self):
        pin = self.factory.pin(4)
        pin.function = "input"
        for error, name, value in (
            (PinInvalidFunction, "function", "alt0"),
            (PinInvalidPull, "pull", "sideways"),
            (PinInvalidBounce, "bounce", -1),
            (PinInvalidBounce, "bounce", "long"),
            (PinInvalidEdges, "edges", "all"),
            (PinSetInput, "state", 1),
        ):
            with self.subTest(name), self.assertRaises(error):
                setattr(pin, name, value)
        pin.function = "output"
        with self.assertRaises(PinInvalidState):
            pin.state = 0.5
        with self.assertRaises(PinFixedPull):
            pin.pull = "up"

    def test_what_was_driven_is_driven_low_at_the_end(self):
        for active_high in (True, False):
            with self.subTest(active_high=active_high):
                device = OutputDevice(
                    5,
                    active_high=active_high,
                    initial_value=active_high,
                    pin_factory=self.factory,
                )
                self.assertIs(self.world.read(5), True)
                device.close()
                self.assertIs(self.world.read(5), False)

    def test_what_was_driven_stays_when_asked_for(self):
        factory = self.make(GPIO_SERVER_CLOSE="keep")
        LED(5, initial_value=True, pin_factory=factory).close()
        self.assertIs(self.world.read(5), True)

    def test_what_was_never_written_is_left_alone(self):
        self.world.write(5, 1)
        OutputDevice(5, initial_value=None, pin_factory=self.factory).close()
        self.assertIs(self.world.read(5), True)

    def test_closing_the_factory_closes_what_it_made(self):
        LED(5, initial_value=True, pin_factory=self.factory)
        self.factory.close()
        self.assertIs(self.world.read(5), False)
        with self.assertRaisesRegex(gpio_client.ConnectionLost, "closed"):
            self.factory.client()

    def test_only_its_first_connection_asks_for_the_back_end(self):
        probes = self.server.text().count("Going to handle command [I00]")
        factory = self.make()
        Button(9, pull_up=None, active_state=True, pin_factory=factory)
        self.assertEqual(self.server.text().count("Going to handle command [I00]") - probes, 1)

    def test_writing_is_one_request(self):
        led = LED(5, pin_factory=self.factory)
        before = self.server.text().count("Going to handle command")
        led.on()
        led.off()
        self.assertTrue(
            eventually(lambda: self.server.text().count("Going to handle command") - before == 2)
        )


class Losses(unittest.TestCase):
    def setUp(self):
        self.server = Server()
        self.addCleanup(self.server.close)
        with environment():
            self.factory = GpioServerFactory(self.server.address)
        self.addCleanup(self.factory.close)

    def write(self, pin, level):
        with gpio_client.connect(self.server.address) as world:
            world.write(pin, level)

    def test_calls_raise_and_say_why_until_the_server_is_back(self):
        led = LED(5, pin_factory=self.factory)
        self.server.stop()
        for _ in range(2):
            with self.assertRaisesRegex(gpio_client.ConnectionLost, "check .* the server runs"):
                led.on()
        self.server.start()
        led.on()
        self.assertTrue(led.is_lit)

    def test_a_loss_that_nobody_saw_does_no_harm(self):
        led = LED(5, pin_factory=self.factory)
        self.server.stop()
        self.server.start()
        led.on()
        self.assertTrue(led.is_lit)

    def test_events_go_on_with_what_differs(self):
        pressed, released = threading.Event(), threading.Event()
        button = Button(6, pull_up=None, active_state=True, pin_factory=self.factory)
        button.when_pressed, button.when_released = pressed.set, released.set
        self.write(6, 1)
        self.assertTrue(pressed.wait(LIMIT))
        self.server.stop()
        self.server.start()
        self.assertTrue(released.wait(LIMIT))
        pressed.clear()
        self.write(6, 1)
        self.assertTrue(pressed.wait(LIMIT))

    def test_nothing_is_written_again(self):
        LED(5, initial_value=True, pin_factory=self.factory)
        self.server.stop()
        self.server.start()
        self.assertFalse(self.factory.pin(5).state)

    def test_closing_meanwhile_raises_nothing(self):
        led = LED(5, initial_value=True, pin_factory=self.factory)
        Button(6, pull_up=None, active_state=True, pin_factory=self.factory)
        self.server.stop()
        led.close()
        self.factory.close()

    def test_a_server_that_does_not_answer_is_waited_for_once_only(self):
        probe = conversation((b"I00", b"I0000I\n"))
        with Script(probe, conversation(then="wait")) as server:
            with environment():
                factory = GpioServerFactory(server.address, timeout=1)
            self.addCleanup(factory.close)
            factory._back_end = None  # so that connecting again waits for an answer
            first = factory._client
            self.assertTrue(eventually(lambda: first and not first._is_connected()))
            with self.assertRaises(gpio_client.Timeout):
                factory.client()
            began = time.monotonic()
            with self.assertRaises(gpio_client.Timeout):
                factory.client()
            self.assertLess(time.monotonic() - began, 0.8)


class Programs(unittest.TestCase):
    """Whole programs, with the factory from the environment."""

    def setUp(self):
        self.server = Server()
        self.addCleanup(self.server.close)

    def run_program(self, text, **variables):
        with environment(GPIO_SERVER=self.server.address, **variables):
            return subprocess.run(
                [sys.executable, "-c", text], capture_output=True, text=True, timeout=60
            )

    PROGRAM = """
from gpiozero import Button, Device, LED
from gpio_client.gpioserver import GpioServerFactory
Device.pin_factory = GpioServerFactory()
led = LED(5)
button = Button(6, pull_up=None, active_state=True)
led.on()
"""

    def test_the_end_of_a_program_drives_low_what_it_drove(self):
        result = self.run_program(self.PROGRAM)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        with gpio_client.connect(self.server.address) as world:
            self.assertIs(world.read(5), False)

    def test_the_end_of_a_program_raises_nothing_without_the_server(self):
        end = f"import os, signal\nos.kill({self.server.process.pid}, signal.SIGKILL)\n"
        result = self.run_program(self.PROGRAM + end)
        self.assertEqual((result.returncode, result.stderr), (0, ""))


class OnTheBoard(BoardTest):
    def setUp(self):
        self.board.inputs()
        with environment():
            self.factory = GpioServerFactory(self.board.address)
        self.addCleanup(self.factory.close)

    def test_drives_outputs(self):
        leds = [LED(pin, pin_factory=self.factory) for pin in (0, 1, 12)]
        for led in leds:
            led.on()
        self.assertEqual(self.board.outputs(), "1100000000001")
        self.assertEqual([led.is_lit for led in leds], [True] * 3)
        for led in leds:
            led.close()
        self.assertEqual(self.board.outputs(), "0" * 13)

    def test_edges_are_told_by_the_server(self):
        pressed, released = threading.Event(), threading.Event()
        button = Button(28, pull_up=None, active_state=True, pin_factory=self.factory)
        button.when_pressed, button.when_released = pressed.set, released.set
        self.board.inputs(28)
        self.assertTrue(pressed.wait(LIMIT))
        self.board.inputs()
        self.assertTrue(released.wait(LIMIT))

    def test_the_interval_of_the_test_back_end_is_not_that_of_the_board(self):
        with environment(GPIO_SERVER_POLL="60"):
            factory = GpioServerFactory(self.board.address)
        self.addCleanup(factory.close)
        factory.watch()
        assert factory._watcher is not None
        self.assertEqual(factory._watcher._poll, BOARD_POLL)

    def test_directions_are_fixed(self):
        with self.assertRaisesRegex(PinInvalidFunction, "GPIO13 of the board"):
            LED(13, pin_factory=self.factory)
        with self.assertRaisesRegex(PinInvalidFunction, "GPIO5 of the board"):
            InputDevice(5, pull_up=None, active_state=True, pin_factory=self.factory)

    def test_an_output_that_nobody_wrote_counts_as_low(self):
        device = OutputDevice(12, initial_value=None, pin_factory=self.factory)
        self.assertFalse(device.value)

    def test_after_a_loss_outputs_count_as_low_until_written(self):
        remembered = LED(3, initial_value=True, pin_factory=self.factory)
        other = LED(0, initial_value=True, pin_factory=self.factory)
        button = Button(13, pull_up=None, active_state=True, pin_factory=self.factory)
        self.board.unplug()
        for use in (remembered.on, lambda: other.is_lit, lambda: button.is_pressed):
            with self.assertRaises(gpio_client.ConnectionLost):
                use()
        self.board.plug()
        self.assertEqual([remembered.is_lit, other.is_lit], [False, False])
        with gpio_client.connect(self.board.address) as client:
            self.assertIs(client.read(3), True, "the server forgets nothing")
        self.assertEqual(self.board.outputs(), "0" * 13)
        remembered.on()
        other.on()
        self.assertEqual([remembered.is_lit, other.is_lit], [True, True])


if __name__ == "__main__":
    unittest.main()
