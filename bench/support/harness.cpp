// Pinning, the table of figures, and the verdicts.
#include "harness.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <sched.h>

namespace bench {
namespace {

using figures = std::map<std::string, std::vector<double>>;

// The last CPU that the process may use: the first ones get most of the interrupts.
int pin()
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        return -1;
    int last = -1;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        last = CPU_ISSET(cpu, &allowed) ? cpu : last;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(last, &one);
    return sched_setaffinity(0, sizeof one, &one) == 0 ? last : -1;
}

void print_row(const std::string &name, std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    std::printf("  %-28s %10.3f   %.3f .. %.3f\n", name.c_str(), median(values), values.front(), values.back());
}

class table_reporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context &) override
    {
        std::printf("  %-28s %10s   %s\n", "figure", "median", "lowest .. highest repetition");
        return true;
    }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        figures measured;
        for (const Run &run : runs) {
            failed = failed || run.error_occurred;
            if (run.error_occurred)
                std::printf("%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
            if (run.run_type == Run::RT_Iteration)
                for (const auto &[name, counter] : run.counters)
                    measured[name].push_back(counter.value);
        }
        if (measured.empty())
            return; // the library's own averages
        const std::string benchmark = runs.front().run_name.function_name;
        std::printf("%s\n", benchmark.c_str());
        for (const auto &[name, values] : measured) {
            print_row(name, values);
            medians[benchmark + "/" + name] = median(values);
        }
        std::fflush(stdout);
    }

    std::map<std::string, double> medians;
    bool failed = false;
};

// False when the goal is missed by more than its margin.
bool judge(const goal &g, const std::map<std::string, double> &medians)
{
    const std::string name = std::string(g.benchmark) + "/" + g.figure;
    const auto at = medians.find(name);
    if (at == medians.end()) {
        std::printf("not measured %s\n", name.c_str());
        return true;
    }
    const double measured = at->second;
    const bool tolerated = measured <= g.at_most * (1 + g.margin);
    const char *verdict = measured <= g.at_most ? "reached     " : tolerated ? "within margin" : "MISSED      ";
    std::printf("%s %s: %.3f, goal at most %g (margin %.0f %%)\n", verdict, name.c_str(), measured, g.at_most,
                100 * g.margin);
    return tolerated;
}

} // namespace

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double cpu_clock()
{
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

benchmark::internal::Benchmark *add(const char *name, void (*body)(benchmark::State &))
{
    return benchmark::RegisterBenchmark(name, body)
        ->Iterations(1)
        ->Repetitions(repetitions)
        ->Unit(benchmark::kMillisecond);
}

int run(int argc, char **argv, std::span<const goal> goals)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const int cpu = pin();
    if (cpu >= 0)
        std::printf("%s: pinned to CPU %d, %d repetitions\n", argv[0], cpu, repetitions);
    else
        std::printf("%s: NOT pinned, %d repetitions\n", argv[0], repetitions);
#ifndef NDEBUG
    std::printf("%s: a build with assertions: its figures mean little\n", argv[0]);
#endif
    table_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    bool reached = !reporter.failed;
    for (const goal &g : goals)
        reached = judge(g, reporter.medians) && reached;
    return reached ? 0 : 1;
}

} // namespace bench
