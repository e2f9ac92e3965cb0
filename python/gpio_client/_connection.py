"""One connection to a server: connecting, one request at a time, and ending in order."""

from __future__ import annotations

import ipaddress
import math
import os
import select
import socket
import threading
import time
from typing import List, NamedTuple, Optional, Tuple

from . import _protocol
from ._errors import ConnectionLost, Error, ServerError, Timeout
from ._protocol import BackEnd, ErrorText, StreamDecoder

DEFAULT_ADDRESS = "localhost:5000"
CLOSE_TIMEOUT = 1.0

_RECEIVE_SIZE = 4096
#: A request that has taken less than this still has its whole time limit, near enough.
_INSTANT = 0.001
#: A socket with a time limit asks whether it has room before it sends; nearly always it has.
_write = os.write if os.name == "posix" else lambda number, data: 0


class Endpoint(NamedTuple):
    """Where a server listens."""

    host: str
    port: int

    @classmethod
    def parse(cls, address: Optional[str]) -> Endpoint:
        """Reads "host:port" or "[ipv6]:port"; None stands for GPIO_SERVER or the default."""
        text = os.environ.get("GPIO_SERVER") or DEFAULT_ADDRESS if address is None else address
        if not isinstance(text, str):
            raise Error(f"an address is a text such as {DEFAULT_ADDRESS!r}, not {text!r}")
        host, colon, port = text.rpartition(":")
        bracketed = host.startswith("[") and host.endswith("]")
        if bracketed:
            host = host[1:-1]
        valid = colon and host and (bracketed or ":" not in host) and not host.isspace()
        if not (valid and port.isascii() and port.isdigit() and 0 < int(port) < 65536):
            raise Error(f"{text!r} is no address; write it as host:port or [ipv6]:port")
        return cls(host, int(port))

    def __str__(self) -> str:
        host = f"[{self.host}]" if ":" in self.host else self.host
        return f"{host}:{self.port}"


def check_seconds(name: str, seconds: float) -> float:
    """Returns `seconds` if it is a length of time that can be waited for; else ValueError."""
    number = isinstance(seconds, (int, float)) and not isinstance(seconds, bool)
    if not (number and math.isfinite(seconds) and 0 < seconds <= threading.TIMEOUT_MAX):
        raise ValueError(f"{name} is a number of seconds above 0, not {seconds!r}")
    return seconds


def _timed_out_connecting(endpoint: Endpoint, timeout: float) -> Timeout:
    return Timeout(
        f"could not connect to {endpoint} within {timeout:g} s; check the address and the network"
    )


_Addresses = List[Tuple[socket.AddressFamily, Tuple[object, ...]]]


def _resolve(endpoint: Endpoint, timeout: float) -> _Addresses:
    found: _Addresses = []
    problem: List[OSError] = []

    def look_up() -> None:
        try:
            for family, _, _, _, address in socket.getaddrinfo(
                endpoint.host, endpoint.port, type=socket.SOCK_STREAM
            ):
                found.append((family, address))
        except (OSError, UnicodeError) as error:
            problem.append(error if isinstance(error, OSError) else OSError(str(error)))

    try:
        ipaddress.ip_address(endpoint.host)
        look_up()
    except ValueError:
        # A resolver knows no time limit, so it may outlive this call; it then touches nothing but
        # these two lists.
        thread = threading.Thread(target=look_up, name="gpio-client resolver", daemon=True)
        try:
            thread.start()
            thread.join(timeout)
        except RuntimeError:
            look_up()  # some versions of Python start none while the program ends
        if thread.is_alive():
            raise _timed_out_connecting(endpoint, timeout) from None
    if problem:
        raise ConnectionLost(
            f"the host name {endpoint.host!r} is not known ({problem[0].strerror or problem[0]}); "
            "check the address"
        ) from problem[0]
    return found


def _connect(endpoint: Endpoint, timeout: float) -> socket.socket:
    deadline = time.monotonic() + timeout
    problem: Optional[OSError] = None
    for family, address in _resolve(endpoint, timeout):
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise _timed_out_connecting(endpoint, timeout)
        try:
            sock = socket.socket(family, socket.SOCK_STREAM)
        except OSError as error:  # a system without this family, as a rule
            problem = error
            continue
        try:
            sock.settimeout(remaining)
            sock.connect(address)
            sock.settimeout(timeout)
            _tune(sock)
            return sock
        except socket.timeout:
            sock.close()
            raise _timed_out_connecting(endpoint, timeout) from None
        except OSError as error:
            sock.close()
            problem = error
        except BaseException:
            sock.close()
            raise
    raise ConnectionLost(
        f"cannot connect to {endpoint} ({problem.strerror if problem else 'no address'}); "
        "check the address, that the server runs, and that its board is plugged in"
    ) from problem


def _tune(sock: socket.socket) -> None:
    # Without this a command could wait for the acknowledgement of the one before.
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    # Who only waits for change messages would never notice that their sender has vanished.
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
    for name, value in (
        ("TCP_KEEPIDLE", 30),
        ("TCP_KEEPINTVL", 10),
        ("TCP_KEEPCNT", 3),
        ("TCP_USER_TIMEOUT", 30_000),
    ):
        if hasattr(socket, name):
            sock.setsockopt(socket.IPPROTO_TCP, getattr(socket, name), value)


def _hang_up(sock: socket.socket) -> None:
    """Ends the own side and reads until the server has ended its own, at most CLOSE_TIMEOUT.

    The server is thereby not left writing to a socket that is closed.
    """
    deadline = time.monotonic() + CLOSE_TIMEOUT
    try:
        sock.shutdown(socket.SHUT_WR)
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                break
            sock.settimeout(remaining)
            if not sock.recv(_RECEIVE_SIZE):
                break
    except OSError:
        pass
    finally:
        sock.close()


class Connection:
    """One connection, used by one thread at a time.

    After ConnectionLost, Timeout and wrong answers it is closed, since a late answer could be taken
    for the next one.
    """

    def __init__(
        self, endpoint: Endpoint, timeout: float, back_end: Optional[BackEnd] = None
    ) -> None:
        """Connects, and asks for the back end unless it is known."""
        self.endpoint = endpoint
        self._timeout = timeout
        self.decoder = StreamDecoder()
        self._socket: Optional[socket.socket] = _connect(endpoint, timeout)
        self._poll = select.poll() if hasattr(select, "poll") else None
        if self._poll is not None:
            self._poll.register(self._socket, select.POLLIN)
        self.back_end = self._probe() if back_end is None else back_end
        self.decoder.set_mask_digits(self.back_end.mask_digits)

    def _probe(self) -> BackEnd:
        try:
            self.send(_protocol.PROBE, "I")
        except ServerError as error:
            if error.text == "INVALID COMMAND: I00":
                return _protocol.BOARD
            self.abandon()
            raise Error(
                f"the server at {self.endpoint} answered {error.text!r} to a first request; "
                "check that it is a GpioServer"
            ) from None
        return _protocol.TEST

    @property
    def is_open(self) -> bool:
        """Whether requests can be made, as far as is known without asking."""
        return self._socket is not None

    @property
    def socket(self) -> socket.socket:
        """The open socket; raises ConnectionLost when there is none."""
        if self._socket is None:
            raise ConnectionLost(
                f"the connection to {self.endpoint} is closed; connect again to go on"
            )
        return self._socket

    def has_ended(self) -> bool:
        """Whether the server has hung up, as it does when the board is pulled out."""
        if self._socket is None:
            return True
        try:
            return self._is_readable() and not self._receive_pending()
        except OSError:
            return True

    def _is_readable(self) -> bool:
        if self._poll is not None:
            return bool(self._poll.poll(0))
        return bool(select.select([self._socket], [], [], 0)[0])

    def _receive_pending(self) -> bool:
        data = self.socket.recv(_RECEIVE_SIZE)
        self.decoder.append(data)
        return bool(data)

    def request(self, letter: str, pin: int = 0, value: int = 0) -> str:
        """Sends one command and returns what stands between the letters of its answer."""
        return self.send(_protocol.command(self.back_end, letter, pin, value), letter)[1:-1]

    def send(self, command: bytes, letter: str) -> str:
        """Sends one command and returns its answer; raises ServerError for an error text."""
        sock = self._socket or self.socket
        decoder = self.decoder
        began = time.monotonic()
        shortened = False
        try:
            if decoder.rest:
                decoder.expect_no_answer()
            try:
                sent = _write(sock.fileno(), command)
            except BlockingIOError:
                sent = 0
            if sent < len(command):
                sock.sendall(command[sent:])
            while True:
                data = sock.recv(_RECEIVE_SIZE)
                if not data:
                    raise self._lost("the server closed it, as when its board is pulled out")
                answer = decoder.decode(data, letter)
                if answer is not None:
                    break
                elapsed = time.monotonic() - began
                if elapsed > _INSTANT:
                    if elapsed >= self._timeout:
                        raise socket.timeout()
                    sock.settimeout(self._timeout - elapsed)
                    shortened = True
        except socket.timeout:
            self.abandon()
            raise Timeout(
                f"no complete answer from {self.endpoint} to {command.decode('ascii')!r} within "
                f"{self._timeout:g} s; connect again, with a longer timeout if the network is slow"
            ) from None
        except ConnectionLost:
            self.abandon()
            raise
        except OSError as error:
            self.abandon()
            raise self._lost(error.strerror or str(error)) from error
        except BaseException:
            self.abandon()
            raise
        if shortened:
            sock.settimeout(self._timeout)
        if isinstance(answer, ErrorText):
            raise ServerError(
                f"the server refused the command {command.decode('ascii')!r}: {answer}; if it was "
                "started anew with another back end, connect again",
                str(answer),
            )
        return answer

    def receive(self) -> None:
        """Hands to the decoder what has arrived; only when the socket is ready to be read."""
        try:
            if not self._receive_pending():
                raise self._lost("the server closed it, as when its board is pulled out")
            self.decoder.expect_no_answer()
        except ConnectionLost:
            self.abandon()
            raise
        except OSError as error:
            self.abandon()
            raise self._lost(error.strerror or str(error)) from error
        except BaseException:
            self.abandon()
            raise

    def _lost(self, reason: str) -> ConnectionLost:
        return ConnectionLost(
            f"lost the connection to {self.endpoint} ({reason}); connect again, once it is back"
        )

    def abandon(self) -> None:
        """Gives the connection up without waiting."""
        sock, self._socket = self._socket, None
        if sock is not None:
            # Ends by itself after CLOSE_TIMEOUT at most, and nobody else has this socket any more.
            thread = threading.Thread(
                target=_hang_up, args=(sock,), name="gpio-client closing", daemon=True
            )
            try:
                thread.start()
            except RuntimeError:  # as above
                sock.close()

    def close(self) -> None:
        """Ends the connection in order; takes CLOSE_TIMEOUT at most."""
        sock, self._socket = self._socket, None
        if sock is not None:
            _hang_up(sock)
