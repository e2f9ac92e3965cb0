"""The wire protocol: commands out of requests, answers and change messages out of bytes.

Nothing in here reads, writes or waits.
"""

from __future__ import annotations

import re
from collections import deque
from typing import Deque, Dict, NamedTuple, Optional, Pattern, Union

from ._errors import Error

MAX_TEXT = 256
MAX_NOTICES = 1024

_NOTICE = re.compile(rb"U([0-9a-f]{4,16})\|([0-9a-f]{4,16})U")
_NOTICE_BEGUN = re.compile(rb"U(?:[0-9a-f]{0,16}|[0-9a-f]{4,16}\|[0-9a-f]{0,16})\Z")


class BackEnd(NamedTuple):
    """What differs between the two back ends of a server."""

    name: str
    pin_count: int
    first_input: int
    pin_digits: int
    mask_digits: int


TEST = BackEnd("test", pin_count=16, first_input=16, pin_digits=1, mask_digits=4)
BOARD = BackEnd("board", pin_count=29, first_input=13, pin_digits=2, mask_digits=8)

#: Inputs of the board, bit i for pin i.
BOARD_INPUTS = (1 << BOARD.pin_count) - (1 << BOARD.first_input)
#: Outputs of the board whose level the server remembers: 1 to 8.
BOARD_REMEMBERED = 0x1FE
#: For the texts of errors.
BOARD_OUTPUT_NAMES = f"pins 0 to {BOARD.first_input - 1}"
BOARD_DIRECTIONS = f"{BOARD_OUTPUT_NAMES} are outputs, pins {BOARD.first_input} to {BOARD.pin_count - 1} are inputs"

#: Told apart by the length of the commands: only the test back end takes this one.
PROBE = b"I00"


class Notice(NamedTuple):
    """A change message: the masks of the pins that changed and of the inputs that are high."""

    changed: int
    high: int


class ErrorText(str):
    """The text of an error that came instead of an answer."""


def command(back_end: BackEnd, letter: str, pin: int = 0, value: int = 0) -> bytes:
    """The bytes of one command."""
    return f"{letter}{pin:0{back_end.pin_digits}X}{value}".encode("ascii")


def is_set(mask: int, pin: int) -> bool:
    """Whether the mask, bit i for pin i, has the pin in it."""
    return bool(mask >> pin & 1)


def board_mask_to_pins(mask: int) -> int:
    """Bit i for pin i, from the board's mask: a byte of each port, the inputs first."""
    return ((mask & 0xFFFF) << BOARD.first_input) | (((mask >> 16) & 0xFF) << 1)


def _patterns(mask_digits: int) -> Dict[str, Pattern[bytes]]:
    payloads = {
        "A": "[0-9a-f]{%d,16}" % mask_digits,
        "P": "[0-9a-f]{%d,16}" % mask_digits,
        "I": "[0-9a-f]{4,16}",
        "O": "[0-9a-f]{4,16}",
        "D": "[01]",
        "R": "[01]",
        "S": "[01]",
        "W": "[01]",
        "K": "",
        "L": "",
        "V": "[ -UW-~]{0,64}",
    }
    patterns = {letter: f"{letter}{payload}{letter}" for letter, payload in payloads.items()}
    patterns["B"] = "DBG"
    return {letter: re.compile(text.encode("ascii")) for letter, text in patterns.items()}


def _begun(letter: str, text: bytes, mask_digits: int) -> bool:
    """Whether `text` can still become an answer to the command with this letter."""
    if letter == "B":
        return b"DBG".startswith(text)
    if not text.startswith(letter.encode("ascii")):
        return False
    payload = text[1:]
    if letter in "APIO":
        return len(payload) <= 16 and re.fullmatch(rb"[0-9a-f]*", payload) is not None
    if letter in "DRSW":
        return payload in (b"", b"0", b"1")
    if letter == "V":
        return len(payload) <= 64 and re.fullmatch(rb"[ -~]*", payload) is not None
    return payload == b""


#: Most answers are one of these, alone in a packet.
_USUAL = {
    f"{letter}{level}{letter}\n".encode("ascii"): f"{letter}{level}{letter}"
    for letter in "DRSW"
    for level in "01"
}


def _violation(text: bytes) -> Error:
    shown = text[:40].decode("latin-1")
    return Error(
        f"the server sent {shown!r}, which is not the expected protocol; "
        "check that the address is that of a GpioServer"
    )


class StreamDecoder:
    """Takes the server's bytes apart into answers, error texts and change messages.

    All messages show their own end, so line ends mean nothing. A change message is written by
    another thread of the server than the answers, so it is taken out wherever it stands. Raises
    Error for bytes that are not the protocol.
    """

    def __init__(self, mask_digits: int = 4) -> None:
        #: What came and was not taken yet, without line ends.
        self.rest = b""
        self._notices: Deque[Notice] = deque(maxlen=MAX_NOTICES)
        self.set_mask_digits(mask_digits)
        #: Change messages seen so far.
        self.notice_count = 0

    def set_mask_digits(self, digits: int) -> None:
        """Sets how many digits answers to A and P have at least."""
        self._mask_digits = digits
        self._patterns = _patterns(digits)

    def append(self, data: bytes) -> None:
        """Takes bytes as they came from the network."""
        self.rest += data.replace(b"\n", b"")
        if b"U" in self.rest:
            self._take_notices_out()

    def decode(self, data: bytes, letter: str) -> Union[str, ErrorText, None]:
        """append() and take_answer() in one."""
        usual = _USUAL.get(data)
        if usual is not None and usual[0] == letter and not self.rest:
            return usual
        self.append(data)
        return self.take_answer(letter)

    def _take_notices_out(self) -> None:
        def keep(match: "re.Match[bytes]") -> bytes:
            self._notices.append(Notice(int(match[1], 16), int(match[2], 16)))
            self.notice_count += 1
            return b""

        self.rest = _NOTICE.sub(keep, self.rest)

    def _body_size(self) -> int:
        begun = _NOTICE_BEGUN.search(self.rest)
        return begun.start() if begun else len(self.rest)

    def take_answer(self, letter: str) -> Union[str, ErrorText, None]:
        """The answer to the command with this letter, or None while it is not complete."""
        text = self.rest
        if text[:1] == b"^":
            end = text.find(b"^", 1)
            if max(end, len(text) if end < 0 else 0) > MAX_TEXT:
                raise _violation(text)
            if end < 0:
                return None
            self.rest = text[end + 1 :]
            return ErrorText(text[: end + 1].decode("latin-1").strip("^ "))
        match = self._patterns[letter].match(text)
        if match:
            self.rest = text[match.end() :]
            return match[0].decode("ascii")
        body = text[: self._body_size()]
        if body and not _begun(letter, body, self._mask_digits):
            raise _violation(body)
        return None

    def take_notice(self) -> Optional[Notice]:
        """The oldest change message that has not been taken; the oldest of too many are lost."""
        return self._notices.popleft() if self._notices else None

    def expect_no_answer(self) -> None:
        """Raises Error unless all that is left is the beginning of a change message at most."""
        if self.rest:
            body = self.rest[: self._body_size()]
            if body:
                raise _violation(body)
