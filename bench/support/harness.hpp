// What the benchmark programs share: one pinned CPU, repetitions, a table of figures, and a verdict for each goal.
//
// A benchmark runs what it compares in turns within one repetition and leaves its figures in the state's counters,
// ratios of neighbours above all: what disturbs the machine disturbs both sides. The harness shows each figure's median
// and spread over the repetitions. A goal is a figure's highest acceptable median; the program fails when one is missed
// by more than its margin, which is what a busy machine may add.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <span>
#include <string>
#include <vector>

namespace bench {

inline constexpr int repetitions = 9;

struct goal {
    const char *benchmark;
    const char *figure;
    double at_most;
    double margin; // as a fraction of at_most
};

// Runs the registered benchmarks. The program's exit code: 0, 1 for a missed goal or an unknown argument.
int run(int argc, char **argv, std::span<const goal> goals);

// Registers a benchmark whose every repetition is one call of `body`, which sets counters.
benchmark::internal::Benchmark *add(const char *name, void (*body)(benchmark::State &));

// A benchmark's body is done in one iteration; its figures are in the counters.
template <class Body> void once(benchmark::State &state, Body &&body)
{
    for ([[maybe_unused]] auto _ : state)
        body();
}

double median(std::vector<double> values);

// The thread's CPU time in nanoseconds.
double cpu_clock();

// Nanoseconds of CPU that `work` takes. Other processes' turns do not count; reading this clock costs a system call.
template <class Work> double cpu_nanoseconds(Work &&work)
{
    const double start = cpu_clock();
    work();
    return cpu_clock() - start;
}

// Nanoseconds by the clock on the wall, for work that is too short for the other one.
template <class Work> double nanoseconds(Work &&work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

} // namespace bench
