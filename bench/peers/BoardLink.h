#pragma once

#include <array>

#include <ftdi.h>

/// The least that a program needs to talk to the board with libftdi1. Failures throw
/// std::runtime_error.
class BoardLink {
public:
    BoardLink();
    BoardLink(const BoardLink&) = delete;
    BoardLink& operator=(const BoardLink&) = delete;
    ~BoardLink();

    void writePin(unsigned char pin, bool value);

    /// Sleeps until a byte comes.
    unsigned char readByte();

    /// The same with nothing but the library's own call.
    unsigned char readByteWithLibraryWait();

    /// Reads until the board reports a change of its inputs.
    void awaitInputChange();

private:
    int finish(ftdi_transfer_control* transfer);

    ftdi_context* context_;
    std::array<unsigned char, 4> window_{};
};
