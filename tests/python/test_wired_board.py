"""gpiozero's devices seeing each other through a board whose output is wired to an input."""

import threading
import unittest

import gpio_client
from gpio_client.gpioserver import GpioServerFactory
from gpiozero import LED, Button
from support import LIMIT, BoardTest, eventually


class Wired(BoardTest):
    OPTIONS = ("--wire", "1", "13")

    def setUp(self):
        self.factory = GpioServerFactory(self.board.address)
        self.addCleanup(self.factory.close)
        self.led = LED(1, pin_factory=self.factory)
        self.button = Button(13, pull_up=None, active_state=True, pin_factory=self.factory)

    def test_the_button_sees_the_led(self):
        pressed, released = threading.Event(), threading.Event()
        self.button.when_pressed, self.button.when_released = pressed.set, released.set
        self.led.on()
        self.assertTrue(pressed.wait(LIMIT))
        self.led.off()
        self.assertTrue(released.wait(LIMIT))

    def test_a_hundred_edges_with_a_loss_between_them_end_with_the_right_state(self):
        told = []
        self.button.when_pressed = lambda: told.append(True)
        self.button.when_released = lambda: told.append(False)
        for number in range(100):
            if number == 50:
                self.board.unplug()
                with self.assertRaises(gpio_client.ConnectionLost):
                    self.led.on()
                self.board.plug()
            level = number % 2 == 0
            self.led.value = level
            self.assertTrue(eventually(lambda: told[-1:] == [level]), number)
            self.assertEqual(self.button.is_pressed, level)
        self.assertEqual(told, [True, False] * 50)


if __name__ == "__main__":
    unittest.main()
