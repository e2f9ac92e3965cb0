"""The examples, as whole programs."""

import csv
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

import gpio_client
from support import Server, eventually

EXAMPLES = pathlib.Path(__file__).parents[2] / "python/examples"


class Examples(unittest.TestCase):
    def setUp(self):
        self.server = Server("--test", "--debug")
        self.addCleanup(self.server.close)
        self.world = gpio_client.connect(self.server.address)
        self.addCleanup(self.world.close)

    def start(self, name, *arguments):
        process = subprocess.Popen(
            [sys.executable, str(EXAMPLES / name), *arguments],
            env={**os.environ, "GPIO_SERVER": self.server.address},
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
        )
        assert process.stdout is not None
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def test_are_short(self):
        examples = list(EXAMPLES.glob("*.py"))
        self.assertEqual(len(examples), 3)
        for example in examples:
            self.assertLessEqual(len(example.read_text(encoding="utf-8").splitlines()), 25)

    def test_blink_drives_the_pin_as_often_as_asked_for(self):
        program = (
            "import runpy, sys; from gpiozero import Device; "
            "from gpio_client.gpioserver import GpioServerFactory; "
            "Device.pin_factory = GpioServerFactory(); "
            f"sys.argv[1:] = ['3', '1']; runpy.run_path({str(EXAMPLES / 'blink.py')!r})"
        )
        subprocess.run(
            [sys.executable, "-c", program],
            env={**os.environ, "GPIO_SERVER": self.server.address},
            check=True,
            timeout=60,
        )
        writes = [line for line in self.server.text().splitlines() if "handle command [W3" in line]
        self.assertEqual([line.split("[W3")[1][0] for line in writes][:3], ["0", "1", "0"])

    def test_the_button_switches_the_relay(self):
        process = self.start("relay.py", "6", "5")
        self.assertEqual(process.stdout.readline(), "ready\n")
        self.world.write(6, 1)
        self.assertTrue(eventually(lambda: self.world.read(5)))
        process.send_signal(signal.SIGINT)
        process.wait(60)
        self.assertFalse(self.world.read(5), "the relay falls off at the end")

    def test_the_logger_writes_a_line_for_each_change_and_loss(self):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "log.csv")
            process = self.start("log_changes.py", path)
            self.assertEqual(process.stdout.readline(), "ready\n")

            def rows():
                with open(path, newline="", encoding="utf-8") as file:
                    return [row[1:3] for row in csv.reader(file)]

            self.world.write(4, 1)
            self.assertTrue(eventually(lambda: rows() == [["4", "1"]]))
            self.server.stop()
            self.assertTrue(eventually(lambda: len(rows()) == 2))
            self.server.start()
            self.assertTrue(eventually(lambda: len(rows()) == 4))
            self.assertEqual([row[0] for row in rows()], ["4", "lost", "back", "4"])
            process.send_signal(signal.SIGINT)
            process.wait(60)


if __name__ == "__main__":
    unittest.main()
