// What a message costs while both sides of the diagnostic channel are closed: two word tests, and nothing is formatted.
//
// Shown three ways: calls of the formatting functions over a million operations, the generated code of a function that
// holds one message, and that function's time beside an empty one. The same operations with the log side open prove
// that the counter counts.
#include "probe.hpp"
#include "support/counting.hpp"
#include "support/harness.hpp"
#include "support/platform.hpp"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

// Sets an ACE of an ACL that is not there and deletes it: messages of three severities on the way, and no state left.
void operate(uint32_t number)
{
    static fp_udp_ace *ace = bench::library().alloc_ace(1, 0);
    fp_udp_acl_key key = {};
    std::strcpy(key.app_type, bench::app_type);
    key.acl_id = number;
    bench::library().set_ace(bench::context(), &key, ace);
    bench::library().delete_ace(bench::context(), &key, ace->sn);
}

uint64_t formatted(uint32_t operations)
{
    const uint64_t before = bench::formatting_calls;
    for (uint32_t i = 0; i < operations; ++i)
        operate(i);
    return bench::formatting_calls - before;
}

void formatting(benchmark::State &state)
{
    constexpr uint32_t million = 1'000'000;
    constexpr uint32_t few = 1000;
    constexpr uint32_t loudest = 5;
    bench::library();
    bench::once(state, [&] {
        g_policy_plx_zlog_level = loudest;
        const uint64_t open = formatted(few);
        g_policy_plx_zlog_level = 0;
        state.counters["calls per operation, log open"] = static_cast<double>(open) / few;
        state.counters["calls per million, closed"] = static_cast<double>(formatted(million));
        if (open == 0)
            state.SkipWithError("the counter counts nothing");
    });
}

// ---- time

template <class Call> double time_of(Call call)
{
    constexpr uint32_t calls = 2'000'000;
    return bench::cpu_nanoseconds([&] {
               for (uint32_t i = 0; i < calls; ++i)
                   call(bench::app_type, i);
           }) /
           calls;
}

void message(benchmark::State &state)
{
    bench::library();
    bench::once(state, [&] {
        const double silent = time_of(bench_probe_silent);
        const double closed = time_of(bench_probe_message);
        state.counters["empty function ns"] = silent;
        state.counters["one message ns"] = closed;
        state.counters["difference ns"] = closed - silent;
    });
}

// ---- generated code

struct closing {
    void operator()(FILE *pipe) const { pclose(pipe); }
};

// One instruction a line, up to the first return: the road that is taken while both sides are closed.
std::vector<std::string> instructions_until_return(const char *function)
{
    const std::string command = std::string("objdump -d --no-show-raw-insn --disassemble=") + function + " /proc/" +
                                std::to_string(getpid()) + "/exe 2>/dev/null";
    std::vector<std::string> lines;
    const std::unique_ptr<FILE, closing> pipe(popen(command.c_str(), "r"));
    char text[512];
    while (pipe && std::fgets(text, sizeof text, pipe.get()) != nullptr) {
        const std::string_view line = text;
        const size_t at = line.find(":\t");
        if (at == line.npos)
            continue;
        lines.emplace_back(line.substr(at + 2, line.find('\n') - at - 2));
        if (lines.back().starts_with("ret"))
            return lines;
    }
    return {};
}

size_t count_of(const std::vector<std::string> &lines, std::initializer_list<const char *> mnemonics)
{
    size_t count = 0;
    for (const std::string &line : lines)
        for (const char *mnemonic : mnemonics)
            count += line.starts_with(mnemonic);
    return count;
}

void generated_code(benchmark::State &state)
{
    bench::once(state, [&] {
        const auto lines = instructions_until_return("bench_probe_message");
        if (lines.empty()) // no objdump here, or another kind of processor
            return;
        for (const std::string &line : lines)
            std::printf("    %s\n", line.c_str());
        state.counters["instructions"] = static_cast<double>(lines.size());
        state.counters["tests"] = static_cast<double>(count_of(lines, {"test", "cmp"}));
        state.counters["calls"] = static_cast<double>(count_of(lines, {"call"}));
    });
}

constexpr bench::goal goals[] = {
    {"formatting", "calls per million, closed", 0, 0},
    {"generated_code", "tests", 2, 0},
    {"generated_code", "calls", 0, 0},
    {"generated_code", "instructions", 7, 0.5}, // two loads of an address, two tests, two jumps and the return
    {"message", "difference ns", 2, 0.5},
};

} // namespace

int main(int argc, char **argv)
{
    bench::add("generated_code", generated_code)->Repetitions(1);
    bench::add("formatting", formatting);
    bench::add("message", message);
    return bench::run(argc, argv, goals);
}
