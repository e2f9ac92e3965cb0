#pragma once

#include "net/Arguments.h"

/// Each runs one measurement as the command line asks and prints the figures as one JSON object.

/// Round trips: each client sends a request as soon as the line that answers its last has come.
void measureRate(const net::Arguments& arguments);

/// One round trip on a connection of its own, over and over.
void measureConnects(const net::Arguments& arguments);

/// Holds idle clients until standard input ends.
void holdClients(const net::Arguments& arguments);

/// One change to many listeners, until the last has it.
void measureBroadcast(const net::Arguments& arguments);

/// From starting a program to its first answer.
void measureStart(const net::Arguments& arguments);
