#!/usr/bin/env python3
"""Whether the tests that a document names exist."""

from __future__ import annotations

import re
import unittest
from pathlib import Path
from typing import Dict, Set

ROOT = Path(__file__).resolve().parent.parent


def suites() -> Dict[str, Set[str]]:
    """The names of all tests in C++, by their suite."""
    found: Dict[str, Set[str]] = {}
    for source in (ROOT / "tests").rglob("*.cpp"):
        text = source.read_text(encoding="utf-8")
        for suite, name in re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", text, re.M):
            found.setdefault(suite, set()).add(name)
    return found


class Reliability(unittest.TestCase):
    def test_names_tests_that_exist(self) -> None:
        known = suites()
        text = (ROOT / "docs/reliability.md").read_text(encoding="utf-8")
        named = re.findall(r"`([A-Z][a-z]\w+)(?:\.(\w+))?`", text)
        self.assertGreater(len(named), 30)
        unknown = [f"{suite}.{name}" for suite, name in named
                   if name not in known.get(suite, ()) and (name or suite not in known)]
        self.assertEqual(unknown, [])


if __name__ == "__main__":
    unittest.main()
