"""The example for nginx, as it stands in the documentation, with a certificate made here."""

from __future__ import annotations

import pathlib
import re
import shutil
import socket
import ssl
import subprocess
import tempfile
import unittest
from typing import BinaryIO

from bridge import JSON_PUT, Bridge, credentials
from support import Process, Server, eventually, free_port, listens

EXAMPLE = pathlib.Path(__file__).parents[2] / "packaging/examples/gpio-web-nginx.conf"


@unittest.skipUnless(shutil.which("nginx") and shutil.which("openssl"), "needs nginx and openssl")
class NginxTest(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory(prefix="nginx.")
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        password = self.directory / "password"
        password.write_text("sesame\n", encoding="ascii")
        self.server = Server()
        self.addCleanup(self.server.close)
        self.bridge = Bridge(
            self.server.address, "--allow-host=gpio.example", f"--password-file={password}"
        )
        self.addCleanup(self.bridge.close)
        self.bridge.wait_until_up()
        self.start_nginx()

    def start_nginx(self) -> None:
        subprocess.run(
            [
                "openssl",
                "req",
                "-x509",
                "-newkey",
                "rsa:2048",
                "-nodes",
                "-days",
                "1",
                "-subj",
                "/CN=gpio.example",
                "-keyout",
                "key",
                "-out",
                "pem",
            ],
            cwd=self.directory,
            check=True,
            capture_output=True,
        )
        self.port = free_port()
        example = EXAMPLE.read_text(encoding="utf-8")
        for pattern, replacement in (
            (r"listen 443 ssl", f"listen 127.0.0.1:{self.port} ssl"),
            (r"/etc/ssl/certs/gpio\.example\.pem", f"{self.directory}/pem"),
            (r"/etc/ssl/private/gpio\.example\.key", f"{self.directory}/key"),
            (r"127\.0\.0\.1:8080", f"127.0.0.1:{self.bridge.port}"),
        ):
            example, count = re.subn(pattern, replacement, example)
            self.assertGreater(count, 0, pattern)
        paths = "".join(
            f"{kind}_temp_path {self.directory};\n"
            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        )
        config = self.directory / "nginx.conf"
        config.write_text(
            f"daemon off; master_process off; pid {self.directory}/pid;\n"
            f"error_log {self.directory}/log;\nevents {{}}\n"
            f"http {{ access_log off;\n{paths}{example}}}\n",
            encoding="utf-8",
        )
        nginx = Process("nginx", "-p", self.directory, "-c", config)
        self.addCleanup(nginx.close)
        self.assertTrue(eventually(lambda: listens(self.port)), nginx.text())

    def open(self, method: str, path: str, fields: dict[str, str], body: bytes = b"") -> BinaryIO:
        context = ssl.create_default_context(cafile=self.directory / "pem")
        context.check_hostname = False
        tls = context.wrap_socket(
            socket.create_connection(("127.0.0.1", self.port)), server_hostname="gpio.example"
        )
        self.addCleanup(tls.close)
        tls.settimeout(30)
        fields = {
            "Host": "gpio.example",
            "Content-Length": str(len(body)),
            **credentials("sesame"),
            **fields,
        }
        head = "".join(f"{name}: {value}\r\n" for name, value in fields.items())
        tls.sendall(f"{method} {path} HTTP/1.1\r\n{head}\r\n".encode() + body)
        return tls.makefile("rb")

    def test_a_page_behind_it_shows_and_switches(self) -> None:
        events = self.open("GET", "/api/v1/events", {})
        self.addCleanup(events.close)
        while not events.readline().startswith(b"data: "):
            pass
        put = self.open(
            "PUT", "/api/v1/pins/3", {**JSON_PUT, "Origin": "https://gpio.example"}, b'{"level":1}'
        )
        self.addCleanup(put.close)
        self.assertIn(b" 204 ", put.readline())
        while not (line := events.readline()).startswith(b"data: "):
            pass
        self.assertIn(b'"n":3,"level":1', line)

    def test_another_name_is_refused_behind_it_too(self) -> None:
        answer = self.open("GET", "/", {"Host": "evil.example"})
        self.addCleanup(answer.close)
        self.assertIn(b" 421 ", answer.readline())


if __name__ == "__main__":
    unittest.main()
