#!/usr/bin/env python3
"""A button switches a relay: relay.py [BUTTON RELAY], on the server of GPIO_SERVER.

The board has no pull resistors, so the button connects its input to the supply, and a resistor
outside connects it to ground. Ctrl-C ends the program, and the relay falls off.
"""

import sys
from signal import pause

from gpiozero import Button, Device, LED

from gpio_client.gpioserver import GpioServerFactory

button_pin, relay_pin = map(int, sys.argv[1:] or (13, 1))

Device.pin_factory = GpioServerFactory()
relay = LED(relay_pin)
button = Button(button_pin, pull_up=None, active_state=True, bounce_time=0.02)
button.when_pressed = relay.toggle
print("ready", flush=True)
pause()
