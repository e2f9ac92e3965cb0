"""What installers make of the package."""

import os
import pathlib
import pydoc
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import gpio_client
from support import Server

SOURCE = pathlib.Path(__file__).parents[2] / "python"

BUILD = """
import sys
from setuptools import build_meta
print(build_meta.build_wheel(sys.argv[1]))
"""


class Wheel(unittest.TestCase):
    installed: pathlib.Path

    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        root = pathlib.Path(directory.name)
        source = root / "source"
        shutil.copytree(SOURCE, source)
        name = subprocess.run(
            [sys.executable, "-c", BUILD, str(root)],
            cwd=source,
            check=True,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
        ).stdout.split()[-1]
        cls.installed = root / "installed"
        shutil.unpack_archive(str(root / name), str(cls.installed), "zip")

    def test_holds_the_package_and_that_it_is_typed(self):
        names = {path.name for path in (self.installed / "gpio_client").iterdir()}
        self.assertEqual(
            names, {path.name for path in (SOURCE / "gpio_client").glob("*.py*")} | {"py.typed"}
        )

    def test_has_the_version_of_the_server(self):
        project = (SOURCE.parent / "CMakeLists.txt").read_text(encoding="utf-8")
        version = re.search(r"project\(GpioServer VERSION ([0-9.]+)", project)
        assert version is not None
        self.assertTrue((self.installed / f"gpio_client-{version[1]}.dist-info").is_dir())

    def test_registers_the_pin_factory(self):
        program = (
            "from gpiozero import LED; led = LED(5); led.on(); "
            "print(type(led.pin_factory).__module__)"
        )
        with Server() as server:
            result = subprocess.run(
                [sys.executable, "-c", program],
                cwd=self.installed,
                env={
                    **os.environ,
                    "PYTHONPATH": str(self.installed),
                    "GPIO_SERVER": server.address,
                    "GPIOZERO_PIN_FACTORY": "gpioserver",
                },
                stdout=subprocess.PIPE,
                text=True,
                timeout=60,
            )
        self.assertEqual(result.stdout, "gpio_client.gpioserver\n")


class Help(unittest.TestCase):
    def test_everything_public_has_a_docstring(self):
        text = pydoc.plain(pydoc.render_doc(gpio_client))
        for name in gpio_client.__all__:
            self.assertIn(name, text)
            self.assertTrue(getattr(gpio_client, name).__doc__, name)
        for name, member in vars(gpio_client.Client).items():
            if not name.startswith("_"):
                self.assertTrue(member.__doc__, name)

    def test_needs_nothing_but_the_standard_library(self):
        program = f"""
import sys, sysconfig
sys.path.insert(0, {str(SOURCE)!r})
import gpio_client
standard = sysconfig.get_path("stdlib")
for module in tuple(sys.modules.values()):
    if not getattr(module, "__file__", standard).startswith(standard):
        print(module.__name__.split(".")[0])
"""
        foreign = subprocess.run(
            [sys.executable, "-I", "-S", "-c", program],
            check=True,
            stdout=subprocess.PIPE,
            text=True,
            timeout=60,
        ).stdout.split()
        self.assertEqual(set(foreign), {"gpio_client"})


if __name__ == "__main__":
    unittest.main()
