"""Changes of pins: told by the server on the board, found by reading on the test back end."""

from __future__ import annotations

import selectors
import socket
import threading
import time
from collections import deque
from typing import Callable, Deque, Iterator, List, NamedTuple, Optional

from ._connection import Connection
from ._errors import ConnectionLost, Error
from ._protocol import BOARD, BOARD_INPUTS, board_mask_to_pins, is_set

READ_INTERVAL = 5.0
#: Systems know no longer waits than some weeks.
LONGEST_WAIT = 3600.0

_Selector = getattr(selectors, "PollSelector", selectors.SelectSelector)


class Change(NamedTuple):
    """A pin has changed to `level`; noticed at `time`, as time.time() counts."""

    pin: int
    level: bool
    time: float


class Feed:
    """The changes of all pins, on a connection of its own, which it owns.

    wait() by one thread at a time; wake() and close() by any.
    """

    def __init__(self, connection: Connection, poll: float, high: Optional[int] = None) -> None:
        """`high` is the mask of pins that are taken to be high so far, None for those that are.

        When `high` differs from what is true, the next wait() tells so.
        """
        self._connection = connection
        self._poll = poll
        self._on_board = connection.back_end is BOARD
        self._noticed = False
        self._changes: Deque[Change] = deque()
        self._lock = threading.Lock()
        self._closed = False
        #: Called by wait() with the mask of high pins whenever that was told or read.
        self.on_levels: Optional[Callable[[int], object]] = None
        try:
            self._wake_receiver, self._wake_sender = socket.socketpair()
        except OSError as error:
            connection.close()
            raise ConnectionLost(
                f"cannot wait for changes of {connection.endpoint} ({error.strerror}); close other "
                "connections or files"
            ) from error
        self._selector: selectors.BaseSelector = _Selector()
        try:
            self._wake_sender.setblocking(False)
            self._selector.register(self._wake_receiver, selectors.EVENT_READ)
            self._selector.register(connection.socket, selectors.EVENT_READ)
            if self._on_board:
                connection.request("L")
            self.high = 0 if high is None else high
            self._read_levels()
            if high is None:
                self._changes.clear()
        except BaseException:
            self._release()
            raise

    def wait(self, deadline: Optional[float] = None) -> Optional[List[Change]]:
        """The next changes; empty when the deadline (time.monotonic()) passes first.

        None when somebody else woke or closed this. Raises Error when the connection fails.
        """
        with self._lock:
            while not self._closed:
                self._take_notices()
                if self._changes:
                    changes = list(self._changes)
                    self._changes.clear()
                    return changes
                now = time.monotonic()
                due = self._next_read
                if deadline is not None and not self._on_board:
                    due = min(due, deadline)
                if now >= due:
                    self._read_levels()
                    if self._changes:
                        continue
                    if deadline is not None and now >= deadline:
                        return []
                    continue
                until = due if deadline is None else min(due, deadline)
                ready = self._selector.select(min(max(0.0, until - now), LONGEST_WAIT))
                if any(key.fileobj is self._wake_receiver for key, _ in ready):
                    return None
                if ready:
                    self._connection.receive()
                elif deadline is not None and now >= deadline:
                    return []
        return None

    def _take_notices(self) -> None:
        while True:
            notice = self._connection.decoder.take_notice()
            if notice is None:
                return
            self._noticed = True
            self._set_high(notice.high & BOARD_INPUTS)

    def _read_levels(self) -> None:
        decoder = self._connection.decoder
        before = decoder.notice_count
        high = int(self._connection.request("A"), 16)
        if self._on_board:
            high = board_mask_to_pins(high) & BOARD_INPUTS
        self._take_notices()
        # Whichever is newer, a level that differs from the last message will bring another.
        if decoder.notice_count == before:
            self._set_high(high)
        # Until its first message the server may miss that all inputs have become low.
        interval = READ_INTERVAL if self._noticed else self._poll
        self._next_read = time.monotonic() + interval

    def _set_high(self, high: int) -> None:
        changed = self.high ^ high
        now = time.time()
        while changed:
            pin = (changed & -changed).bit_length() - 1  # the lowest
            changed &= changed - 1
            self._changes.append(Change(pin, is_set(high, pin), now))
        self.high = high
        if self.on_levels is not None:
            self.on_levels(high)

    def wake(self) -> None:
        """Makes wait() return None, now and from now on."""
        self._closed = True
        try:
            self._wake_sender.send(b"\0")
        except OSError:
            pass

    def close(self) -> None:
        """Ends wait() and the connection."""
        self.wake()
        with self._lock:
            self._release()

    def _release(self) -> None:
        self._connection.close()
        self._selector.close()
        self._wake_receiver.close()
        self._wake_sender.close()


class Changes(Iterator[Change]):
    """Iterates over changes; also a context manager that ends the iteration."""

    def __init__(
        self, feed: Feed, timeout: Optional[float], on_failure: Callable[[], None]
    ) -> None:
        self._feed = feed
        self._timeout = timeout
        self._on_failure = on_failure
        self._pending: Deque[Change] = deque()
        self._ended = False
        self._restart_timeout()

    def _restart_timeout(self) -> None:
        self._deadline = None if self._timeout is None else time.monotonic() + self._timeout

    def __next__(self) -> Change:
        while not self._pending:
            if self._ended:
                raise StopIteration
            try:
                found = self._feed.wait(self._deadline)
            except Error:
                self.close()
                self._on_failure()
                raise
            except BaseException:
                self.close()
                raise
            if not found:
                self.close()
            else:
                self._pending.extend(found)
        self._restart_timeout()
        return self._pending.popleft()

    def close(self) -> None:
        """Ends the iteration, also one that is waiting in another thread."""
        self._ended = True
        self._feed.close()

    def __enter__(self) -> Changes:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        # A loop that was left early must not leave its connection behind.
        if not getattr(self, "_ended", True):
            self.close()
