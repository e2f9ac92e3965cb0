"""The pins of a server, read and driven one request at a time."""

from __future__ import annotations

import threading
import time
import weakref
from typing import Dict, Iterator, List, NoReturn, Optional

from . import _protocol
from ._changes import Change, Changes, Feed
from ._connection import Connection, Endpoint, check_seconds
from ._errors import Error, PinError
from ._protocol import (
    BOARD,
    BOARD_DIRECTIONS,
    BOARD_OUTPUT_NAMES,
    BOARD_REMEMBERED,
    BackEnd,
    board_mask_to_pins,
    is_set,
)


class Client:
    """One connection to a server; safe to use from several threads.

    Made by connect(). A context manager: the end of the block closes it.

    Every method raises ConnectionLost, Timeout or Error when its request fails; afterwards the
    client is closed, since a late answer could be taken for the next one: connect again. PinError
    and ValueError are raised before anything is sent, ServerError when the server answers with an
    error text; the client stays open after these. So it does when the server answers that it could
    not do something, which is an Error.
    """

    def __init__(
        self,
        address: Optional[str] = None,
        *,
        timeout: float = 5.0,
        _back_end: Optional[BackEnd] = None,
    ) -> None:
        """As connect(). Who knows the back end already saves the request that finds it out."""
        self._timeout = check_seconds("timeout", timeout)
        self._endpoint = Endpoint.parse(address)
        self._lock = threading.RLock()
        self._changes: weakref.WeakSet[Changes] = weakref.WeakSet()
        self._written: Dict[int, bool] = {}
        self._firmware: Optional[str] = None
        self._connection = Connection(self._endpoint, self._timeout, _back_end)
        self._back_end = back_end = self._connection.back_end
        self._pins = range(back_end.pin_count)
        #: For pins whose level the server tells one by one: not for outputs of the board.
        self._reads: Dict[int, bytes] = {
            pin: _protocol.command(back_end, "R", pin)
            for pin in self._pins
            if pin >= back_end.first_input or back_end is not BOARD
        }
        self._writes: List[List[bytes]] = [
            [_protocol.command(back_end, "W", pin, value) for value in (0, 1)] for pin in self._pins
        ]

    @property
    def backend(self) -> str:
        """ "test" for the pins in the server's memory, "board" for the I/O board."""
        return self._back_end.name

    @property
    def firmware(self) -> Optional[str]:
        """The board's firmware version, such as "v2.5".

        None while the board has not told it, and on the test back end, which has none.
        """
        if self._back_end is BOARD and self._firmware is None:
            version = self._request("V")
            self._firmware = None if version == "Unknown" else version
        return self._firmware

    @property
    def pins(self) -> range:
        """The numbers of all pins: 0 to 15 on the test back end, 0 to 28 on the board."""
        return self._pins

    def read(self, pin: int) -> bool:
        """True when the pin is high.

        Of a board's output it is what was written last; PinError for outputs 0 and 9 to 12 that
        this client has not written, since the server does not remember those.
        """
        if type(pin) is not int:
            self._check_pin(pin)
        command = self._reads.get(pin)
        if command is not None:
            with self._lock:
                return self._connection.send(command, "R") == "R1R"
        self._check_pin(pin)
        with self._lock:
            remembered = is_set(BOARD_REMEMBERED, pin)
            level = self.read_all()[pin] if remembered else self._written.get(pin)
        if level is None:
            raise PinError(
                f"the level of output {pin} is not known: the server remembers outputs 1 to 8 "
                "only; write it first"
            )
        return level

    def read_all(self) -> Dict[int, Optional[bool]]:
        """The levels of all pins at one moment.

        None stands for levels that are not known: the board's outputs 0 and 9 to 12 until this
        client has written them.
        """
        with self._lock:
            high = int(self._request("A"), 16)
            if self._back_end is not BOARD:
                return {pin: is_set(high, pin) for pin in self._pins}
            high = board_mask_to_pins(high)
            return {
                pin: is_set(high, pin)
                if pin >= BOARD.first_input or is_set(BOARD_REMEMBERED, pin)
                else self._written.get(pin)
                for pin in self._pins
            }

    def write(self, pin: int, level: int) -> None:
        """Drives a pin high (True or 1) or low (False or 0).

        Every pin of the test back end may be written, which simulates an input. Raises PinError for
        the board's inputs, ValueError for any other level, and Error when the server could not.
        """
        if type(pin) is not int or pin not in self._pins:
            self._check_pin(pin)
        if not (isinstance(level, int) and level in (0, 1)):
            raise ValueError(f"a level is True, False, 1 or 0, not {level!r}")
        if self._back_end is BOARD and pin >= BOARD.first_input:
            raise PinError(
                f"pin {pin} is an input of the board and cannot be written; its outputs are "
                + BOARD_OUTPUT_NAMES
            )
        with self._lock:
            if self._connection.send(self._writes[pin][level], "W") != "W1W":
                raise Error(
                    f"the server could not write pin {pin}; check the board, and look into the "
                    "server's log"
                )
            self._written[pin] = bool(level)

    def toggle(self, pin: int) -> bool:
        """Writes the opposite of the pin's level, and returns the new level.

        Nothing that this client does comes in between; another client might. PinError as for read()
        and write().
        """
        with self._lock:
            self._check_pin(pin)
            if self._back_end is BOARD and pin >= BOARD.first_input:
                self.write(pin, 0)  # raises
            level = not self.read(pin)
            self.write(pin, level)
            return level

    def direction(self, pin: int) -> str:
        """ "in" or "out"."""
        self._check_pin(pin)
        if self._back_end is BOARD:
            return "in" if pin >= BOARD.first_input else "out"
        return "in" if self._request("D", pin) == "1" else "out"

    def set_direction(self, pin: int, direction: str) -> None:
        """Makes a pin of the test back end an input ("in") or an output ("out").

        The board's directions are fixed: PinError for the other one, nothing for its own.
        """
        self._check_pin(pin)
        if direction not in ("in", "out"):
            raise ValueError(f'a direction is "in" or "out", not {direction!r}')
        if self._back_end is BOARD:
            if direction != self.direction(pin):
                raise PinError(
                    f'pin {pin} of the board cannot become "{direction}": {BOARD_DIRECTIONS}; '
                    "choose another pin"
                )
            return
        if self._request("S", pin, int(direction == "in")) != "1":
            raise Error(f"the server could not change the direction of pin {pin}; read its log")

    def ping(self) -> float:
        """Makes a request that changes nothing; returns the seconds that it took."""
        began = time.perf_counter()
        self._request("I")
        return time.perf_counter() - began

    def changes(self, timeout: Optional[float] = None, *, poll: float = 0.1) -> Iterator[Change]:
        """Iterates over changes of pins, beginning with this call.

        On the board the server tells the changes of inputs. On the test back end all pins are read
        every `poll` seconds; what changes twice in between is not seen. Until the board's server
        has told its first change, the inputs are read every `poll` seconds as well, and every 5 s
        from then on.

        Ends after `timeout` seconds without a change, counted from this call and then from the last
        change; None: never. close() ends it too. Several may run at once; each has a connection of
        its own. Raises as every request does.
        """
        if timeout is not None:
            check_seconds("timeout", timeout)
        check_seconds("poll", poll)
        with self._lock:
            self._connection.socket  # raises when this is closed
            try:
                connection = Connection(self._endpoint, self._timeout, self._back_end)
                changes = Changes(Feed(connection, poll), timeout, self._connection_failed)
            except Error:
                self._connection.abandon()
                raise
            self._changes.add(changes)
        return changes

    def close(self) -> None:
        """Ends the connection and all iterations over changes. Closing twice does nothing."""
        with self._lock:
            self._connection.close()
        # Another cannot begin any more.
        for changes in list(self._changes):
            changes.close()

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "" if self._connection.is_open else ", closed"
        return f"<gpio_client.Client of {self._endpoint}, {self.backend} back end{state}>"

    def _is_connected(self) -> bool:
        """Whether the server has not hung up yet, found out without a request."""
        with self._lock:
            return not self._connection.has_ended()

    def _request(self, letter: str, pin: int = 0, value: int = 0) -> str:
        with self._lock:
            return self._connection.request(letter, pin, value)

    def _connection_failed(self) -> None:
        with self._lock:
            self._connection.abandon()

    def _check_pin(self, pin: int) -> None:
        if not isinstance(pin, int) or isinstance(pin, bool):
            raise PinError(f"a pin is a whole number, not {pin!r}")
        if pin not in self._pins:
            self._raise_no_such_pin(pin)

    def _raise_no_such_pin(self, pin: int) -> NoReturn:
        raise PinError(
            f"there is no pin {pin}: the {self.backend} back end has pins 0 to {self._pins[-1]}"
        )


def connect(address: Optional[str] = None, *, timeout: float = 5.0) -> Client:
    """Connects to a server and finds out which back end it has.

    `address` is "host:port" or "[ipv6]:port"; without it GPIO_SERVER counts, and without that
    localhost:5000. `timeout` in seconds limits connecting, all addresses of a name together, and
    each request from its first byte to its last.

    Raises ConnectionLost when nobody listens there or the name is unknown, Timeout, and Error when
    the address is none or something else than a server answers.
    """
    return Client(address, timeout=timeout)
