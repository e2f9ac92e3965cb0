#!/usr/bin/env python3
"""Blinks an output: GPIOZERO_PIN_FACTORY=gpioserver blink.py [PIN [TIMES]]"""

import sys

from gpiozero import LED

pin = int(sys.argv[1]) if len(sys.argv) > 1 else 1
times = int(sys.argv[2]) if len(sys.argv) > 2 else None

with LED(pin) as led:
    led.blink(on_time=0.5, off_time=0.5, n=times, background=False)
