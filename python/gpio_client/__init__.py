"""Reads, drives and watches the pins of a GpioServer.

    import gpio_client

    with gpio_client.connect("localhost:5000") as client:
        client.write(1, True)
        print(client.read(13))
        for change in client.changes(timeout=60):
            print(change.pin, change.level)

connect() makes a Client: one connection, safe to use from several threads. A Watcher calls back
for changes and outlives the board and the server. With GPIOZERO_PIN_FACTORY=gpioserver the pins
are those of gpiozero.

Pins are whole numbers; levels are True for high and False for low; times are in seconds. Every
failure is an Error, which says what to do next; ConnectionLost, Timeout and PinError are also
Python's ConnectionError, TimeoutError and ValueError.
"""

from ._changes import Change
from ._client import Client, connect
from ._errors import ConnectionLost, Error, PinError, ServerError, Timeout
from ._watcher import Watcher

__all__ = [
    "Change",
    "Client",
    "ConnectionLost",
    "Error",
    "PinError",
    "ServerError",
    "Timeout",
    "Watcher",
    "connect",
]

# help() then shows them under the names by which programs know them.
for _name in __all__:
    globals()[_name].__module__ = __name__
del _name
