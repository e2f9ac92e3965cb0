#!/usr/bin/env python3
"""Tells which tests of a JUnit report failed, with the end of what each of them printed."""

import sys
import xml.etree.ElementTree

LINES = 40

for case in xml.etree.ElementTree.parse(sys.argv[1]).iter("testcase"):
    if case.get("status") == "fail":
        print(f"-- {case.get('name')}, after {float(case.get('time', 0)):.1f} s:")
        print("\n".join((case.findtext("system-out") or "").splitlines()[-LINES:]))
