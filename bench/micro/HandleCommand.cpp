#include <string>

#include <benchmark/benchmark.h>

#include "micro/Handlers.h"

namespace {

void simulated(benchmark::State& state, const char* text) {
    Handlers handlers;
    const std::string command = text;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(handlers.simulated.handleCommand(command));
    }
}

void board(benchmark::State& state, const char* text) {
    Handlers handlers;
    const std::string command = text;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(handlers.board.handleCommand(command));
    }
}

BENCHMARK_CAPTURE(simulated, R, "R50");
BENCHMARK_CAPTURE(simulated, W, "W51");
BENCHMARK_CAPTURE(simulated, A, "A00");
BENCHMARK_CAPTURE(board, R, "R0D0");
BENCHMARK_CAPTURE(board, W, "W011");
BENCHMARK_CAPTURE(board, A, "A000");

} // namespace

BENCHMARK_MAIN();
