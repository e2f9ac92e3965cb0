#include <stdexcept>

#include <gtest/gtest.h>

#include "SimulatedPart.h"
#include "support/VirtualBoard.h"

namespace {

using support::VirtualBoard;

TEST(FirmwareSocket, RefusesWhatOnlyTheModelCanDo) {
    const SimulatedPart part;
    const VirtualBoard board(part.boardOptions());
    EXPECT_THROW(board.command("flood 10"), std::runtime_error);
    EXPECT_THROW(board.command("ignore V on"), std::runtime_error);
    EXPECT_THROW(board.command("wire 1 13"), std::runtime_error);
    EXPECT_THROW(board.command("firmware 2 5"), std::runtime_error);
}

TEST(FirmwareSocket, TellsNoOutputHighAtFirst) {
    const SimulatedPart part;
    EXPECT_EQ(VirtualBoard(part.boardOptions()).command("outputs"), "0000000000000 0");
}

} // namespace
