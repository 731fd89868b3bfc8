// An integrator's platform, built from the doubles of tests/support: what a program in C asks of them.
#include <support/fakes.h>

extern "C" {

int port_deliver(const char *table, int event, const ProtobufCMessage *record)
{
    return fake::store.deliver(table, event, record);
}

int port_timers(void)
{
    return static_cast<int>(fake::clock.timers.size());
}

int port_commands(void)
{
    return static_cast<int>(fake::shell.commands.size());
}

// Whether the newest call of the store begins like this.
int port_last_call(const char *begins)
{
    return !fake::store.calls.empty() && fake::store.calls.back().rfind(begins, 0) == 0;
}

} // extern "C"
