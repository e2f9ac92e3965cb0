"""The exceptions of this package."""

from __future__ import annotations


class Error(Exception):
    """Something did not work; the message says what to do next. Base of all others here."""


class ConnectionLost(Error, ConnectionError):
    """There is no connection: it could not be made, was lost, or was closed. Connect again."""


class Timeout(Error, TimeoutError):
    """No complete answer came in time. The client is closed; connect again."""


class ServerError(Error):
    """The server answered with an error instead of a result."""

    def __init__(self, message: str, text: str) -> None:
        super().__init__(message)
        #: What the server said, such as "UNKNOWN COMMAND: Z00".
        self.text = text

    def __reduce__(self) -> "tuple[type[ServerError], tuple[str, str]]":
        return type(self), (str(self), self.text)


class PinError(Error, ValueError):
    """There is no such pin, or it cannot do that. Nothing was sent."""
