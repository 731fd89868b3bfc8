// An integrator's platform, built from the doubles of tests/support: how a program in C delivers a record.
#include <support/fakes.h>

extern "C" int port_deliver(const char *table, int event, const ProtobufCMessage *record)
{
    return fake::store.deliver(table, event, record);
}
