#include <memory>
#include <stdexcept>
#include <system_error>

#include <gtest/gtest.h>

#include "SimulatedPart.h"
#include "support/Eventually.h"
#include "support/VirtualBoard.h"

namespace {

TEST(FirmwareSocket, RefusesWhatOnlyTheModelCanDo) {
    const SimulatedPart part;
    const VirtualBoard board(part.boardOptions());
    EXPECT_THROW(board.command("flood 10"), std::runtime_error);
    EXPECT_THROW(board.command("ignore V on"), std::runtime_error);
    EXPECT_THROW(board.command("wire 1 13"), std::runtime_error);
    EXPECT_THROW(board.command("firmware 2 5"), std::runtime_error);
}

TEST(FirmwareSocket, ThatEndsTakesTheBoardWithIt) {
    auto part = std::make_unique<SimulatedPart>();
    const VirtualBoard board(part->boardOptions());
    EXPECT_EQ(board.command("outputs"), "0000000000000 0");
    part.reset();
    EXPECT_TRUE(support::eventually([&] {
        try {
            board.command("outputs");
            return false;
        } catch (const std::system_error&) {
            return true;
        }
    }));
}

} // namespace
