"""Options that cannot be, and where options come from."""

from __future__ import annotations

import subprocess
import tempfile
import unittest
from pathlib import Path

from harness import PROGRAMS

ID = ("--id", "lab1")


def run(*arguments: str, environment: dict[str, str] | None = None) -> tuple[int, str]:
    # Nothing listens on port 1, and --forget ends by itself.
    result = subprocess.run(
        [str(PROGRAMS / "gpio-mqtt"), *arguments],
        capture_output=True,
        text=True,
        timeout=30,
        env={"GPIO_MQTT_TIME_SCALE": "0.01", **(environment or {})},
        check=False,
    )
    return result.returncode, result.stdout + result.stderr


class WrongUsageTest(unittest.TestCase):
    def assert_usage(self, says: str, *arguments: str, **how) -> None:
        with self.subTest(says=says, arguments=arguments):
            status, text = run(*arguments, **how)
            self.assertEqual(status, 2, text)
            self.assertIn(says, text)

    def test_ends_with_2_and_says_what_is_wrong(self) -> None:
        self.assert_usage("--id is required")
        self.assert_usage("no id", "--id", "a/b")
        self.assert_usage("--bass", *ID, "--bass", "x")
        self.assert_usage("wildcards", *ID, "--base", "gpio/+")
        self.assert_usage("wildcards", *ID, "--discovery", "#")
        self.assert_usage("no valid port", *ID, "--broker", "h:0")
        self.assert_usage("names no host", *ID, "--broker", "[::1")
        self.assert_usage("--server", *ID, "--server", "h")
        self.assert_usage("GPIO_SERVER", *ID, environment={"GPIO_SERVER": "h:x"})
        self.assert_usage("N=NAME", *ID, "--pin", "3")
        self.assert_usage("is not a pin", *ID, "--pin", "x=Pump")
        self.assert_usage("does not exist", *ID, "--pin", "29=Pump")
        self.assert_usage("device class", *ID, "--pin", "3=Pump,pump")
        self.assert_usage("device class", *ID, "--pin", "3=Pump, left,outlet")
        self.assert_usage("named twice", *ID, "--pin", "3=A", "--pin", "3=B")
        self.assert_usage("does not exist", *ID, "--only", "3,29")
        self.assert_usage("--discovery-format", *ID, "--discovery-format", "both")
        self.assert_usage("cannot read", *ID, "--ca-file", "/missing")
        self.assert_usage("cannot read", *ID, "--password-file", "/missing", "--username", "u")
        self.assert_usage("needs --username", *ID, "--password-file", "/dev/null")
        self.assert_usage("belong together", *ID, "--ca-file", __file__, "--cert-file", __file__)
        self.assert_usage("needs TLS", *ID, "--cert-file", __file__, "--key-file", __file__)
        self.assert_usage("/missing", *ID, "--config", "/missing")

    def test_a_password_needs_tls_unless_the_broker_is_on_this_machine(self) -> None:
        user = (*ID, "--username", "u", "--password-file", __file__)
        for host in ("192.0.2.1", "localhost.example", "128.0.0.1", "[::2]:1883"):
            self.assert_usage("in the clear", *user, "--broker", host)
        for host in ("127.9.9.9:1", "localhost:1", "[::1]:1"):
            self.assertEqual(run(*user, "--broker", host, "--forget")[0], 1)
        accepted = run(*user, "--broker", "192.0.2.1:1", "--plain-password", "--version")
        self.assertEqual(accepted[0], 0)


class SourcesTest(unittest.TestCase):
    def config(self, text: str) -> str:
        file = tempfile.NamedTemporaryFile("w", suffix=".ini", delete=False)
        self.addCleanup(Path(file.name).unlink)
        with file:
            file.write(text)
        return file.name

    def test_a_file_holds_the_same_options(self) -> None:
        file = self.config(
            "# A cabinet\nid = cabinet\nbroker = 127.0.0.1:1\npin = 3=Water pump,outlet\n"
            "pin = 4=Lamp\nonly = 3,4\nname = My cabinet\nno-discovery = true\n"
        )
        status, text = run("--config", file, "--forget")
        self.assertEqual(status, 1, text)
        self.assertIn("gpio-mqtt[cabinet]: cannot connect to the broker at 127.0.0.1:1", text)

    def test_every_line_of_a_repeated_option_counts(self) -> None:
        file = self.config("id = lab1\npin = 3=Pump\npin = 3=Lamp\n")
        status, text = run("--config", file)
        self.assertEqual(status, 2)
        self.assertIn("pin 3 is named twice", text)

    def test_an_unknown_option_in_a_file_is_wrong_usage(self) -> None:
        status, text = run("--config", self.config("id = lab1\nbass = gpio\n"))
        self.assertEqual(status, 2)
        self.assertIn("bass", text)

    def test_the_command_line_wins_over_the_file(self) -> None:
        file = self.config("id = lab1\nbroker = 127.0.0.1:1\n")
        self.assertIn("gpio-mqtt[lab2]", run("--config", file, "--id", "lab2", "--forget")[1])

    def test_tls_has_a_port_of_its_own(self) -> None:
        text = run(*ID, "--ca-file", __file__, "--broker", "127.0.0.1", "--forget")[1]
        self.assertIn("127.0.0.1:8883", text)

    def test_help_and_version_end_with_0(self) -> None:
        self.assertEqual(run("--help")[0], 0)
        self.assertRegex(run("--version")[1], r"^gpio-mqtt \d")


if __name__ == "__main__":
    unittest.main()
