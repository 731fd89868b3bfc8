// Compiled as the library is, apart from its callers, so that the message stands alone in the generated code.
#include "probe.hpp"

#include "fp_udp_dbg/channel/channel.hpp"

#include <cstdlib>

// The library's own are private to it, and both sides are closed when the message is measured.
plx::diag::console_form::console_form(const char *)
{
    std::abort();
}

void plx::diag::log_line(const gate &, const char *, const char *, int, const char *)
{
    std::abort();
}

namespace {

constexpr char source[] = "bench/probe.cpp";
template <plx::diag::Word W> constexpr plx::diag::reporter<W, source> report{};

} // namespace

extern "C" {

void bench_probe_silent(const char *, uint32_t) {}

void bench_probe_message(const char *name, uint32_t id)
{
    report<plx::diag::Word::Detail>("app_type : %s, acl_id : %d\n", name, id);
}

} // extern "C"
