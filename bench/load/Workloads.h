#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What the command line says. Bytes are hexadecimal digits; an exchange is "HEX:COUNT".
struct LoadOptions {
    std::uint16_t port = 0;
    std::string request;
    std::size_t milliseconds = 0;
    std::size_t clients = 1;
    std::size_t window = 1;
    bool blocking = false;

    std::vector<std::string> hello;
    std::size_t messageBytes = 0;
    std::size_t listeners = 0;
    std::size_t changes = 0;
    std::vector<std::string> triggers;
    std::string triggerPath;
    std::uint16_t triggerPort = 0;
    std::vector<std::string> triggerHello;
};

/// Each runs one measurement as the command line asks and prints the figures as one JSON object.

/// Round trips: each client sends a request as soon as the line that answers its last has come.
void measureRate(const LoadOptions& options);

/// One round trip on a connection of its own, over and over.
void measureConnects(const LoadOptions& options);

/// One change to many listeners, until the last has it.
void measureBroadcast(const LoadOptions& options);
