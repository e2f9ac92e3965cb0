"""A virtual board and what goes with it, for scripts/soak, scripts/bench and the tests of Python."""

import os
import socket
import subprocess
import time

START_SECONDS = 30


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class VirtualBoard:
    """A board in a directory of its own; ends with this process at the latest."""

    def __init__(self, binaries, directory, options=()):
        self.control = f"{directory}/control"
        self.environment = {"LD_PRELOAD": os.path.abspath(f"{binaries}/libvirtual-usb.so"),
                            "VIRTUAL_USB_DIRECTORY": str(directory)}
        self.process = subprocess.Popen(
            [f"{binaries}/virtual-board", "--directory", directory, "--until-end-of-input", *options],
            stdin=subprocess.PIPE)
        deadline = time.monotonic() + START_SECONDS
        while True:
            try:
                self.command("stats plugged")
                return
            except OSError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise
                time.sleep(0.02)

    def command(self, text):
        """Carries out one command and returns its answer without the leading ok."""
        with socket.socket(socket.AF_UNIX) as control:
            control.settimeout(60)
            control.connect(self.control)
            control.sendall(text.encode() + b"\n")
            answer = control.makefile().readline()
        if not answer.startswith("ok"):
            raise RuntimeError(f"{text}: {answer}")
        return answer[3:].strip()

    def end(self):
        self.process.stdin.close()
        self.process.wait()
