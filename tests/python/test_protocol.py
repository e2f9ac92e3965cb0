"""The decoder of the byte stream, with the vectors that the C++ decoder is tested with as well."""

import json
import pathlib
import unittest

from gpio_client import Error
from gpio_client._protocol import (
    BOARD,
    MAX_NOTICES,
    TEST,
    ErrorText,
    StreamDecoder,
    board_mask_to_pins,
    command,
)

VECTORS = pathlib.Path(__file__).parents[1] / "vectors" / "stream.json"


def decode(vector, packets):
    """What a decoder makes of the packets: answers, notices, and whether they are the protocol."""
    decoder = StreamDecoder(vector["maskDigits"])
    letters = list(vector["letters"])
    answers, notices = [], []
    try:
        for packet in packets:
            decoder.append(packet)
            while letters:
                answer = decoder.take_answer(letters[0])
                if answer is None:
                    break
                letters.pop(0)
                error = isinstance(answer, ErrorText)
                answers.append({"error": str(answer)} if error else answer)
            if not letters:
                decoder.expect_no_answer()
            while True:
                notice = decoder.take_notice()
                if notice is None:
                    break
                notices.append([f"{notice.changed:x}", f"{notice.high:x}"])
    except Error:
        return "violation"
    return answers, notices


class Vectors(unittest.TestCase):
    def check(self, cut):
        vectors = json.loads(VECTORS.read_text(encoding="utf-8"))
        self.assertGreater(len(vectors), 40)
        for vector in vectors:
            with self.subTest(vector["name"]):
                packets = [packet.encode("latin-1") for packet in vector["packets"]]
                expected = (vector["answers"], vector["notices"])
                self.assertEqual(
                    decode(vector, cut(packets)), "violation" if vector["violation"] else expected
                )

    def test_packets_as_they_come(self):
        self.check(lambda packets: packets)

    def test_all_packets_as_one(self):
        self.check(lambda packets: [b"".join(packets)])

    def test_every_byte_by_itself(self):
        self.check(lambda packets: [bytes([byte]) for byte in b"".join(packets)])


class Decoder(unittest.TestCase):
    def test_keeps_the_newest_of_too_many_messages(self):
        decoder = StreamDecoder()
        for number in range(MAX_NOTICES + 2):
            decoder.append(b"Uffff|%04xU\n" % number)
        newest = decoder.take_notice()
        assert newest is not None
        self.assertEqual(newest.high, 2)

    def test_says_what_the_server_sent_when_it_is_not_the_protocol(self):
        decoder = StreamDecoder()
        decoder.append(b"220 mail.example.org\r\n")
        with self.assertRaisesRegex(Error, "'220 mail.example.org"):
            decoder.take_answer("I")

    def test_decodes_a_usual_answer_like_any_other(self):
        for text in (b"W1W\n", b"\nW1W", b"W1W", b"W0W\n"):
            decoder = StreamDecoder()
            self.assertEqual(decoder.decode(text, "W"), text.strip().decode("ascii"))
            decoder.expect_no_answer()

    def test_does_not_take_a_usual_answer_for_that_to_another_command(self):
        with self.assertRaises(Error):
            StreamDecoder().decode(b"W1W\n", "R")


class Commands(unittest.TestCase):
    def test_have_one_digit_on_the_test_back_end(self):
        self.assertEqual(command(TEST, "W", 10, 1), b"WA1")

    def test_have_two_digits_on_the_board(self):
        self.assertEqual(command(BOARD, "R", 28), b"R1C0")

    def test_board_mask_has_the_inputs_first_and_then_outputs_1_to_8(self):
        self.assertEqual(board_mask_to_pins(0x01_80_01), 1 << 13 | 1 << 28 | 1 << 1)
