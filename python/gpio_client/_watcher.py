"""Calls back for changes, and outlives the board and the server."""

from __future__ import annotations

import sys
import threading
from typing import Callable, Optional

from ._changes import Change, Feed
from ._connection import Connection, Endpoint, check_seconds
from ._errors import ConnectionLost, Error, Timeout
from ._protocol import BackEnd

FIRST_PAUSE = 0.1
LONGEST_PAUSE = 1.0


def call(callback: Optional[Callable[..., object]], *arguments: object) -> None:
    """Calls back, if there is anything to call; an exception goes to threading.excepthook."""
    if callback is None:
        return
    try:
        callback(*arguments)
    except BaseException:  # pylint: disable=broad-except
        try:
            threading.excepthook(
                threading.ExceptHookArgs((*sys.exc_info(), threading.current_thread()))
            )
        except BaseException:  # pylint: disable=broad-except
            sys.excepthook(*sys.exc_info())


class Watcher:
    """Tells changes of pins on a thread of its own; connects again after a loss.

    The callbacks run on that thread, one at a time; changes wait meanwhile. An exception in one
    goes to threading.excepthook and ends nothing. They may call close().

    on_change(change): a pin has changed; see Client.changes() for which changes are found and
        `poll`. After a return only the pins that differ from what was told last are told.
    on_lost(error): the connection was lost. With reconnect=False that is the last call, and the
        thread ends.
    on_back(): connected again; told before what has changed meanwhile.
    """

    def __init__(
        self,
        on_change: Callable[[Change], object],
        address: Optional[str] = None,
        *,
        reconnect: bool = True,
        on_lost: Optional[Callable[[Error], object]] = None,
        on_back: Optional[Callable[[], object]] = None,
        poll: float = 0.1,
        timeout: float = 5.0,
        _back_end: Optional[BackEnd] = None,
        _on_levels: Optional[Callable[[int], object]] = None,
    ) -> None:
        """Does not connect yet. `address` and `timeout` (seconds) are those of connect()."""
        self._on_change = on_change
        self._endpoint = Endpoint.parse(address)
        self._reconnect = reconnect
        self._on_lost = on_lost
        self._on_back = on_back
        self._poll = check_seconds("poll", poll)
        self._timeout = check_seconds("timeout", timeout)
        self._back_end = _back_end
        self._on_levels = _on_levels
        self._stopping = threading.Event()
        self._lock = threading.Lock()
        self._feed: Optional[Feed] = None
        self._thread: Optional[threading.Thread] = None

    def start(self) -> None:
        """Connects; changes from now on are told. Raises as connect() does. Only once."""
        if self._thread is not None or self._stopping.is_set():
            raise RuntimeError("a watcher is started once only; make a new one")
        self._feed = self._open(None)
        self._feed.on_levels = self._tell_levels
        # A daemon, so that a program that forgets close() can end.
        self._thread = threading.Thread(target=self._run, name="gpio-client watcher", daemon=True)
        self._thread.start()

    def close(self) -> None:
        """Ends the thread and its connection; no callback runs after that.

        Waits for a callback that is running, unless it is called by that, and for an attempt to
        connect or a request, which `timeout` limits.
        """
        self._stopping.set()
        with self._lock:
            feed = self._feed
        if feed is not None:
            feed.wake()
        if self._thread is not None and self._thread is not threading.current_thread():
            self._thread.join()

    def __enter__(self) -> Watcher:
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _open(self, high: Optional[int]) -> Feed:
        connection = Connection(self._endpoint, self._timeout, self._back_end)
        self._back_end = connection.back_end
        return Feed(connection, self._poll, high)

    def _run(self) -> None:
        feed = self._feed
        while feed is not None:
            try:
                self._tell_changes(feed)
                feed.close()
                return
            except Error as error:
                feed.close()
                self._forget_back_end(error)
                call(self._on_lost, error)
            feed = self._open_again(feed.high) if self._reconnect else None

    def _tell_changes(self, feed: Feed) -> None:
        while not self._stopping.is_set():
            for change in feed.wait() or ():
                if self._stopping.is_set():
                    return
                call(self._on_change, change)

    def _forget_back_end(self, error: Error) -> None:
        # Something else may listen there now.
        if not isinstance(error, (ConnectionLost, Timeout)):
            self._back_end = None

    def _open_again(self, high: int) -> Optional[Feed]:
        pause = FIRST_PAUSE
        while not self._stopping.wait(pause):
            try:
                feed = self._open(high)
            except Error as error:
                self._forget_back_end(error)
                pause = min(2 * pause, LONGEST_PAUSE)
                continue
            with self._lock:
                self._feed = feed
            if self._stopping.is_set():
                feed.close()
                return None
            call(self._on_back)
            feed.on_levels = self._tell_levels
            self._tell_levels(feed.high)
            return feed
        return None

    def _tell_levels(self, high: int) -> None:
        call(self._on_levels, high)
