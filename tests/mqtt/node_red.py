"""Loads the example flow into a real Node-RED, and switches a pin (scripts/test-node-red)."""

from __future__ import annotations

import json
import os
import tempfile
import unittest
import urllib.request
from pathlib import Path

from harness import Process, Server, TestCase, eventually
from support import free_port

FLOW = Path(__file__).resolve().parents[2] / "examples/node-red/flow.json"


class NodeRedTest(TestCase):
    def test_the_flow_shows_the_pins_and_switches_one(self) -> None:
        broker = self.start_broker()
        server = self.keep(Server())
        self.start_bridge(server.address, broker)
        flow = json.loads(FLOW.read_text(encoding="utf-8"))
        for node in flow:
            if node["type"] == "mqtt-broker":
                node.update(broker="127.0.0.1", port=str(broker.port))
        with tempfile.TemporaryDirectory() as directory:
            Path(directory, "flow.json").write_text(json.dumps(flow), encoding="utf-8")
            port = free_port()
            options = ["-u", directory, "-p", str(port), "-D", "uiHost=127.0.0.1", "flow.json"]
            red = self.keep(Process("node", os.environ["NODE_RED"], *options))
            self.assertTrue(eventually(lambda: "pin 15: OFF" in red.text()), red.text())
            press = urllib.request.Request(f"http://127.0.0.1:{port}/inject/gpio-on", method="POST")
            self.assertEqual(urllib.request.urlopen(press).status, 200)
            self.assertTrue(eventually(lambda: "pin 3: ON" in red.text()), red.text())
            self.assertEqual(server.send("R30"), "R1R")
            red.end()


if __name__ == "__main__":
    unittest.main()
