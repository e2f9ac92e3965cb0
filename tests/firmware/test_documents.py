#!/usr/bin/env python3
"""Whether the documents of the board say the same as each other and as the server's pin map."""

from __future__ import annotations

import re
import subprocess
import unittest
from pathlib import Path
from typing import Dict, NamedTuple

ROOT = Path(__file__).resolve().parent.parent.parent


class Pin(NamedTuple):
    port: str
    number: str
    connector: str


def pins_of_circuit() -> Dict[int, Pin]:
    text = (ROOT / "docs/images/circuit.txt").read_text(encoding="utf-8")
    wire = re.compile(r"^(?:left|right) (\d+) (P\w\d)\b.* to (?:in|out)put (\d+), (\S+)$", re.M)
    return {int(pin): Pin(port, number, at) for number, port, pin, at in wire.findall(text)}


def pins_of_table() -> Dict[int, Pin]:
    text = (ROOT / "docs/hardware.md").read_text(encoding="utf-8")
    row = re.compile(r"^\| (\d+) \| (?:input|output \d+) \| (P\w\d) \| (\d+) \| (\S+) \|$", re.M)
    return {int(pin): Pin(port, number, at) for pin, port, number, at in row.findall(text)}


def device_pins_of_table() -> Dict[int, int]:
    text = (ROOT / "docs/hardware.md").read_text(encoding="utf-8")
    row = re.compile(r"^\| (\d+) \| output (\d+) \|", re.M)
    return {int(client): int(device) for client, device in row.findall(text)}


class Documents(unittest.TestCase):
    def test_picture_is_the_one_of_its_text(self) -> None:
        subprocess.run([str(ROOT / "scripts/circuit"), "--check"], check=True)

    def test_circuit_and_table_agree(self) -> None:
        self.assertEqual(pins_of_circuit(), pins_of_table())
        self.assertEqual(sorted(pins_of_table()), list(range(29)))

    def test_outputs_are_those_of_the_server(self) -> None:
        expected = {pin: pin - 1 if pin > 0 else 12 for pin in range(13)}
        self.assertEqual(device_pins_of_table(), expected)

    def test_ports_are_those_of_the_firmware(self) -> None:
        devices = [f"PC{bit}" for bit in range(8)] + [f"PD{bit}" for bit in range(2, 7)]
        ports = {pin: devices[device] for pin, device in device_pins_of_table().items()}
        ports.update({13 + bit: f"PA{bit}" for bit in range(8)})
        ports.update({21 + bit: f"PB{bit}" for bit in range(8)})
        self.assertEqual({pin: at.port for pin, at in pins_of_table().items()}, ports)


if __name__ == "__main__":
    unittest.main()
