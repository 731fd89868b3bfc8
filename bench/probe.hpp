// Two functions that differ by one message: what a message costs while nobody listens.
#pragma once

#include <cstdint>

extern "C" {
void bench_probe_silent(const char *name, uint32_t id);
void bench_probe_message(const char *name, uint32_t id);
}
