#!/usr/bin/env python3
"""Logs changes as CSV: log_changes.py FILE, from the server of GPIO_SERVER; Ctrl-C ends it."""

import csv
import sys
import threading
from datetime import datetime

import gpio_client

with open(sys.argv[1], "a", newline="", encoding="utf-8") as file:
    log = csv.writer(file)

    def write(*row):
        log.writerow([datetime.now().isoformat(), *row])
        file.flush()

    with gpio_client.Watcher(
        lambda change: write(change.pin, int(change.level)),
        on_lost=lambda error: write("lost", error),
        on_back=lambda: write("back"),
    ):
        print("ready", flush=True)
        threading.Event().wait()
