"""A pytest plugin that runs gpiozero's own tests with our pin factory on a live server.

It stands in for their conftest.py: the fixture mock_factory gives pins of the server's test back
end. What happens outside of the pins, such as a finger on a button, comes over a second
connection. Their tests use numbers up to 27, so a pin of the server stands for each one above 15.
"""

import os
import pathlib
import threading
import time
from collections import namedtuple

import pkg_resources
import pytest
from gpiozero import Device

import gpio_client
from gpio_client.gpioserver import GpioServerFactory, GpioServerPin
from support import LIMIT, Server, eventually

NOT_APPLICABLE = pathlib.Path(__file__).with_name("gpiozero-not-applicable.txt")
HIGHEST = 27
#: In this order server pins stand for numbers above 15; the tests use low numbers mostly.
STAND_INS = (15, 14, 13, 12, 0, 1, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2)
#: Their tests of real pins expect these two to be wired together.
OUTPUT, INPUT = 22, 27

PinState = namedtuple("PinState", ("timestamp", "state"))


class SuitePin(GpioServerPin):
    """A pin that the tests can drive from outside, and that remembers its states."""

    def __init__(self, factory, info):
        super().__init__(factory, info)
        self.level = False
        self.clear_states()

    @property
    def number(self):
        return self.factory.known_as(self._info.number)

    def clear_states(self):
        self.changed_at = time.time()
        self.states = [PinState(0.0, self.level)]

    def _remember(self, level):
        if level != self.level:
            now = time.time()
            self.level = level
            self.states.append(PinState(now - self.changed_at, level))
            self.changed_at = now

    def _set_state(self, value):
        super()._set_state(value)
        self.factory.follow_wire(self, bool(value))
        self._remember(bool(value))

    def _set_pull(self, value):
        super()._set_pull(value)
        if value != "floating":
            # There are no resistors in the server's memory, so this is one outside.
            self._drive(value == "up")

    def _drive(self, level):
        self.factory.world.write(self._info.number, level)
        self.factory.follow_wire(self, level)
        self._remember(level)
        if self.when_changed is not None:
            assert eventually(lambda: self._told == level or self._timer is not None)
            with self._telling:
                pass

    def drive_high(self):
        assert self.function == "input"
        self._drive(True)

    def drive_low(self):
        assert self.function == "input"
        self._drive(False)

    def _call_when_changed(self):
        self.when_changed(self.factory.ticks(), int(self.state))

    def assert_states(self, expected):
        for actual, state in zip(self.states, expected):
            assert actual.state == state

    def assert_states_and_times(self, expected):
        for actual, (after, state) in zip(self.states, expected):
            assert actual.timestamp == pytest.approx(after, rel=0.05, abs=0.05)
            assert actual.state == state


class SuiteFactory(GpioServerFactory):
    """The factory under test, on pins that are low and inputs at first."""

    address: str

    def __init__(self):
        super().__init__(self.address)
        self.stand_ins = {}
        self.world = gpio_client.connect(self.address)
        self.is_wired = False
        for pin in self.world.pins:
            self.world.set_direction(pin, "in")
            self.world.write(pin, 0)

    def _number(self, spec):
        if isinstance(spec, str) and spec.startswith("GPIO") and spec[4:].isdigit():
            spec = int(spec[4:])
        if isinstance(spec, int) and 15 < spec <= HIGHEST:
            if spec not in self.stand_ins:
                taken = {*self.stand_ins.values(), *self.pins}
                self.stand_ins[spec] = next(pin for pin in STAND_INS if pin not in taken)
            spec = self.stand_ins[spec]
        return super()._number(spec)

    def known_as(self, server_pin):
        """The number by which the tests know a pin of the server."""
        numbers = [number for number, pin in self.stand_ins.items() if pin == server_pin]
        return numbers[0] if numbers else server_pin

    def _make_pin(self, number):
        return SuitePin(self, self.board_info.pins[number])

    def follow_wire(self, pin, level):
        if self.is_wired and pin.number == OUTPUT:
            self.world.write(self._number(INPUT), level)

    def close(self):
        super().close()
        self.world.close()


class WiredFactory(SuiteFactory):
    def __init__(self):
        super().__init__()
        self.is_wired = True


class ThreadedTest(threading.Thread):
    """Runs a function on a thread; they import this from their conftest."""

    def __init__(self, test_fn, *args, **kwargs):
        super().__init__(daemon=True)
        self.call = lambda: test_fn(*args, **kwargs)
        self.outcome = None
        self.start()

    def run(self):
        self.outcome = self.call()

    @property
    def result(self):
        self.join(LIMIT)
        if self.is_alive():
            raise RuntimeError("the thread did not end")
        return self.outcome


def not_applicable():
    """Names of tests, each with the reason why it does not apply."""
    reasons = {}
    reason = ""
    for line in NOT_APPLICABLE.read_text(encoding="utf-8").splitlines():
        if line.startswith("# "):
            reason = line[2:]
        elif line:
            reasons[line] = reason
    return reasons


def pytest_configure(config):
    import sys

    sys.modules.setdefault("conftest", sys.modules[__name__])
    config.gpio_server = Server()
    SuiteFactory.address = config.gpio_server.address
    os.environ["GPIO_SERVER_PULLS"] = "external"
    # Their tests of real pins go through the factories that gpiozero itself registers.
    distribution = pkg_resources.get_distribution("gpiozero")
    factories = distribution.get_entry_map("gpiozero_pin_factories")
    factories.clear()
    factories["gpioserver"] = pkg_resources.EntryPoint.parse(
        f"gpioserver = {__name__}:WiredFactory", dist=distribution
    )


def pytest_unconfigure(config):
    config.gpio_server.close()


def pytest_collection_modifyitems(config, items):
    reasons = not_applicable()
    for item in items:
        name = f"{pathlib.Path(str(item.fspath)).stem}::{item.name.split('[')[0]}"
        if name in reasons:
            item.add_marker(pytest.mark.skip(reason=reasons.pop(name)))
    # A second run has the failed tests only.
    if reasons and not config.getoption("lf"):
        raise pytest.UsageError(f"listed as not applicable, but not there: {sorted(reasons)}")


@pytest.fixture
def mock_factory():
    before = Device.pin_factory
    Device.pin_factory = factory = SuiteFactory()
    try:
        yield factory
    finally:
        factory.close()
        Device.pin_factory = before


@pytest.fixture
def no_default_factory():
    before = Device.pin_factory
    Device.pin_factory = None
    try:
        yield
    finally:
        Device.pin_factory = before


@pytest.fixture
def pwm(mock_factory):
    """Their devices with PWM ask for it; our pins have none."""
