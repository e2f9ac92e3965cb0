"""The pins of a GpioServer as a pin factory of gpiozero: GPIOZERO_PIN_FACTORY=gpioserver.

Environment:

GPIO_SERVER: the server, "host:port"; localhost:5000 if unset
GPIO_SERVER_PULLS: "external" for boards with pull resistors outside; pull_up=True and False are
    then accepted. Otherwise they raise PinFixedPull, since the board has none
GPIO_SERVER_CLOSE: "keep" leaves outputs as they are when their device is closed; otherwise what a
    program drove is driven low
GPIO_SERVER_POLL: seconds between two looks at the pins of the test back end, 0.01 if unset
"""

from __future__ import annotations

import os
import re
import threading
import time
import weakref
from types import MethodType
from typing import Any, Callable, Dict, Iterator, NamedTuple, Optional, Tuple

from gpiozero.exc import (  # type: ignore[import]
    PinFixedPull,
    PinInvalidBounce,
    PinInvalidEdges,
    PinInvalidFunction,
    PinInvalidPin,
    PinInvalidPull,
    PinInvalidState,
    PinPWMUnsupported,
    PinSetInput,
    PinSPIUnsupported,
)
from gpiozero.pins import Factory, Pin  # type: ignore[import]

from ._client import Client
from ._connection import check_seconds
from ._errors import ConnectionLost, Error, PinError, Timeout
from ._protocol import BOARD_DIRECTIONS, BackEnd, is_set
from ._watcher import Watcher, call

TEST_POLL = 0.01
BOARD_POLL = 0.1
#: After a server did not answer for all of its time, calls raise at once for this long.
RETRY_PAUSE = 1.0

_DIRECTIONS = {"in": "input", "out": "output"}
_PIN_NAME = re.compile(r"(?:GPIO)?([0-9]{1,3})", re.ASCII)


class PinInfo(NamedTuple):
    """What is known of a pin, in the form that newer versions of gpiozero ask for."""

    number: int
    name: str
    names: Tuple[str, ...]
    pull: str
    row: int
    col: int
    interfaces: Tuple[str, ...]


class BoardInfo(NamedTuple):
    """What is known of the board, in the form that newer versions of gpiozero ask for."""

    model: str
    pins: Dict[int, PinInfo]

    def find_pin(self, spec: object) -> Iterator[Tuple[str, PinInfo]]:
        """Yields the header and the pin of that number or name, if there is one."""
        number = _pin_number(spec)
        if number in self.pins:
            yield "GPIO", self.pins[number]


def _pin_number(spec: object) -> Optional[int]:
    """The number that a pin is asked for by, as 5, "5" or "GPIO5"; None when it is none."""
    if isinstance(spec, bytes):
        spec = spec.decode("latin-1")
    if isinstance(spec, str):
        match = _PIN_NAME.fullmatch(spec.upper())
        return int(match[1]) if match else None
    return spec if isinstance(spec, int) and not isinstance(spec, bool) else None


def _choice(name: str, word: str) -> bool:
    value = os.environ.get(name, "")
    if value not in ("", word):
        raise Error(f"{name} is {value!r}; set it to {word!r} or not at all")
    return value == word


def _poll_interval() -> Optional[float]:
    text = os.environ.get("GPIO_SERVER_POLL", "")
    if not text:
        return None
    try:
        return check_seconds("GPIO_SERVER_POLL", float(text))
    except ValueError:
        raise Error(f"GPIO_SERVER_POLL is {text!r}; set it to a number of seconds") from None


class GpioServerFactory(Factory):  # type: ignore[misc]
    """Makes pins of the server at `address`, "host:port"; of GPIO_SERVER without it.

    `timeout` in seconds limits connecting and each request. Raises as gpio_client.connect() does.

    After a loss every call raises ConnectionLost until the server is back; then calls work again
    on a new connection, and events go on. Nothing is written again by itself; the board may have
    restarted, so its outputs count as low until written.
    """

    def __init__(self, address: Optional[str] = None, *, timeout: float = 5.0) -> None:
        super().__init__()
        self.external_pulls = _choice("GPIO_SERVER_PULLS", "external")
        self.keeps_outputs = _choice("GPIO_SERVER_CLOSE", "keep")
        self._poll = _poll_interval()
        self._address = address
        self._timeout = timeout
        self._lock = threading.Lock()
        self.pins: Dict[int, GpioServerPin] = {}
        self._watcher: Optional[Watcher] = None
        self._closed = False
        self._retry_at = 0.0
        self._problem: Optional[Timeout] = None
        #: How often the connection was lost.
        self.losses = 0
        self._client: Optional[Client] = Client(address, timeout=timeout)
        self._back_end: Optional[BackEnd] = self._client._back_end
        #: Whether this is the I/O board and not the test back end.
        self.is_board = self._client.backend == "board"
        self._info = BoardInfo(
            f"GpioServer {self._client.backend} back end",
            {
                number: PinInfo(number, f"GPIO{number}", (), "floating", number, 0, ("gpio",))
                for number in self._client.pins
            },
        )

    def client(self) -> Client:
        """The open client; connects again when the last one was lost."""
        client = self._client
        if client is not None and client._is_connected():
            return client
        with self._lock:
            return self._connect_again()

    def _connect_again(self) -> Client:
        client = self._client
        if self._closed:
            raise ConnectionLost("this pin factory is closed; make a new one")
        if client is not None:
            if client._is_connected():
                return client
            client.close()
            self._client = None
            self.losses += 1
        if self._problem is not None and time.monotonic() < self._retry_at:
            raise Timeout(str(self._problem))
        try:
            self._client = Client(self._address, timeout=self._timeout, _back_end=self._back_end)
        except Timeout as error:
            self._problem = error
            self._retry_at = time.monotonic() + RETRY_PAUSE
            raise
        self._problem = None
        return self._client

    def watch(self) -> None:
        """Has changes told to the pins from now on."""
        with self._lock:
            if self._watcher is None and not self._closed:
                # The pins compare by themselves: what they read is newer than what this tells.
                watcher = Watcher(
                    lambda change: None,
                    self._address,
                    poll=BOARD_POLL if self.is_board else self._poll or TEST_POLL,
                    timeout=self._timeout,
                    _back_end=self._back_end,
                    _on_levels=self._levels_seen,
                )
                watcher.start()
                self._watcher = watcher

    def _levels_seen(self, high: int) -> None:
        for pin in list(self.pins.values()):
            if pin.is_watched:
                call(pin.level_seen, is_set(high, pin._info.number))

    def close(self) -> None:
        """Closes all pins and the connections. Raises nothing, also when the server is away."""
        for pin in list(self.pins.values()):
            pin.close()
        with self._lock:
            self._closed = True
            watcher, self._watcher = self._watcher, None
            client, self._client = self._client, None
        if watcher is not None:
            watcher.close()
        if client is not None:
            client.close()
        self.pins.clear()

    def reserve_pins(self, requester: object, *pins: object) -> None:
        super().reserve_pins(requester, *(self._number(pin) for pin in pins))

    def release_pins(self, reserver: object, *pins: object) -> None:
        super().release_pins(reserver, *(self._number(pin) for pin in pins))

    def pin(self, spec: object) -> GpioServerPin:
        """The pin of this number (5, "5") or name ("GPIO5"); the same object each time."""
        number = self._number(spec)
        with self._lock:
            if number not in self.pins:
                self.pins[number] = self._make_pin(number)
            return self.pins[number]

    def _make_pin(self, number: int) -> GpioServerPin:
        return GpioServerPin(self, self._info.pins[number])

    def _number(self, spec: object) -> int:
        number = _pin_number(spec)
        if number not in self._info.pins:
            last = len(self._info.pins) - 1
            raise PinInvalidPin(
                f"{spec!r} is no pin of this server; its pins are 0 to {last}, as 5 or 'GPIO5'"
            )
        return number

    def spi(self, **spi_args: object) -> None:
        raise PinSPIUnsupported("the server has no SPI; choose a device without it")

    @staticmethod
    def ticks() -> float:
        return time.monotonic()

    @staticmethod
    def ticks_diff(later: float, earlier: float) -> float:
        return max(0.0, later - earlier)

    def _get_board_info(self) -> BoardInfo:
        return self._info

    board_info = property(_get_board_info, doc="What is known of the board: its pins.")


class GpioServerPin(Pin):  # type: ignore[misc]
    """One pin; made by GpioServerFactory.pin()."""

    def __init__(self, factory: GpioServerFactory, info: PinInfo) -> None:
        super().__init__()
        self._factory = factory
        self._info = info
        # Orders callbacks of the watcher's and the debounce timer's thread; only these take it.
        self._telling = threading.RLock()
        # Guards what follows; nothing is called while it is held.
        self._lock = threading.Lock()
        self._when_changed: Optional[Callable[[], Optional[Callable[..., object]]]] = None
        self._told: Optional[bool] = None
        self._seen = False
        self._timer: Optional[threading.Timer] = None
        self._reset()

    def _reset(self) -> None:
        self._function: Optional[str] = None
        self._pull = "floating"
        self._bounce: Optional[float] = None
        self._edges = "both"
        self._driven = False
        self._driver: Optional[Client] = None

    @property
    def number(self) -> int:
        """The pin's number, as clients of the server count."""
        return self._info.number

    @property
    def info(self) -> PinInfo:
        """What is known of the pin."""
        return self._info

    @property
    def factory(self) -> GpioServerFactory:
        """The factory that made this pin."""
        return self._factory

    def __repr__(self) -> str:
        return self._info.name

    def close(self) -> None:
        """Drives the pin low if it was driven, unless GPIO_SERVER_CLOSE=keep; raises nothing."""
        self._set_when_changed(None)
        driven = self._driven and not self._factory.keeps_outputs
        self._reset()
        if driven:
            try:
                self._factory.client().write(self._info.number, False)
            except (Error, OSError):
                # Without a server there is nothing to be driven; the board restarts with all low.
                pass

    def _get_function(self) -> str:
        if self._function is None:
            self._function = _DIRECTIONS[self._factory.client().direction(self._info.number)]
        return self._function

    def _set_function(self, value: str) -> None:
        if value not in ("input", "output"):
            raise PinInvalidFunction(f'{value!r} is no function of {self!r}: "input" or "output"')
        if self._factory.is_board:
            if value != self._get_function():
                raise PinInvalidFunction(
                    f"{self!r} of the board cannot be an {value}: {BOARD_DIRECTIONS}; "
                    "choose another pin"
                )
        else:
            self._factory.client().set_direction(
                self._info.number, "in" if value == "input" else "out"
            )
            self._function = value
        if value == "output":
            self._pull = "floating"

    def _get_state(self) -> bool:
        client = self._factory.client()
        if not self._factory.is_board or self._get_function() == "input":
            return client.read(self._info.number)
        if self._factory.losses and self._driver is not client:
            # The board may have restarted with its outputs low, whatever the server remembers.
            return False
        try:
            return client.read(self._info.number)
        except PinError:
            return False

    def _set_state(self, value: float) -> None:
        if (self._function or self._get_function()) != "output":
            raise PinSetInput(f"{self!r} is an input and cannot be driven; make it an output")
        if value not in (0, 1):
            raise PinInvalidState(f"{value!r} is no state of {self!r}: 0 or 1, it has no PWM")
        client = self._factory.client()
        self._driven = True
        client.write(self._info.number, bool(value))
        self._driver = client

    def _get_pull(self) -> str:
        return self._pull

    def _set_pull(self, value: str) -> None:
        if value not in ("up", "down", "floating"):
            raise PinInvalidPull(f'{value!r} is no pull of {self!r}: "up", "down" or "floating"')
        if value != "floating":
            if self._get_function() != "input":
                raise PinFixedPull(f"{self!r} is an output, which has no pull; choose an input")
            if not self._factory.external_pulls:
                raise PinFixedPull(
                    f"{self!r} has no pull resistors: write pull_up=None with active_state=True "
                    "(active when high) or active_state=False (active when low) instead; or set "
                    "GPIO_SERVER_PULLS=external if there are resistors outside"
                )
        self._pull = value

    def _set_frequency(self, value: Optional[float]) -> None:
        if value is not None:
            raise PinPWMUnsupported(f"{self!r} has no PWM; choose a device without it, as LED")

    def _get_bounce(self) -> Optional[float]:
        return self._bounce

    def _set_bounce(self, value: Optional[float]) -> None:
        if value is not None:
            try:
                value = float(value)
                if value:
                    check_seconds("bounce", value)
            except (TypeError, ValueError):
                raise PinInvalidBounce(
                    f"{value!r} is no bounce time: None or seconds from 0"
                ) from None
        self._bounce = value or None

    def _get_edges(self) -> str:
        return self._edges

    def _set_edges(self, value: str) -> None:
        if value not in ("none", "falling", "rising", "both"):
            raise PinInvalidEdges(f'{value!r} is none of "both", "rising", "falling" and "none"')
        self._edges = value

    def _get_when_changed(self) -> Optional[Callable[..., object]]:
        reference = self._when_changed
        return None if reference is None else reference()

    def _set_when_changed(self, value: Optional[Callable[..., object]]) -> None:
        if value is None:
            with self._lock:
                self._when_changed = None
                timer, self._timer = self._timer, None
            if timer is not None:
                timer.cancel()
            return
        # A pin must not keep alive the device that it tells.
        reference: Any = weakref.WeakMethod if isinstance(value, MethodType) else weakref.ref
        with self._lock:
            enabled = self._when_changed is not None
            if not enabled:
                self._told = None
            self._when_changed = reference(value)
        if not enabled:
            try:
                self._factory.watch()
                level = self._get_state()
            except BaseException:
                self._set_when_changed(None)
                raise
            with self._lock:
                # What the watcher has told meanwhile is newer.
                if self._told is None:
                    self._told = self._seen = level

    @property
    def is_watched(self) -> bool:
        """Whether changes of the pin are to be told."""
        return self._when_changed is not None

    def level_seen(self, level: bool) -> None:
        """Tells the device when this level differs from what it was told last."""
        # What the debounce timer's thread calls may close the factory, which waits for this thread.
        while not self._telling.acquire(timeout=0.05):
            if not self.is_watched:
                return
        try:
            self._seen = level
            self._tell(level)
        finally:
            self._telling.release()

    def _tell(self, level: bool) -> None:
        with self._lock:
            if self._when_changed is None or self._timer is not None or level == self._told:
                return
            was_known = self._told is not None
            self._told = level
            if not was_known:
                return
            edge_wanted = self._edges in ("both", "rising" if level else "falling")
            if edge_wanted and self._bounce:
                self._timer = threading.Timer(self._bounce, self._window_ended)
                self._timer.daemon = True
                self._timer.start()
        method = self._get_when_changed()
        if method is None:
            self._set_when_changed(None)
        elif edge_wanted:
            method(self._factory.ticks(), int(level))

    def _window_ended(self) -> None:
        with self._telling:
            with self._lock:
                if self._timer is not threading.current_thread():
                    return
                self._timer = None
            try:
                self._tell(self._get_state())
            except (Error, OSError):
                # The watcher goes on from the level that it told last.
                self._tell(self._seen)
