// Store addresses as they come from the environment or a command line.
#include "input.hpp"

#include <mom/url.hpp>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto url = mom::parse_store_url(fuzz::input(data, size).rest());
    if (!url)
        return 0;
    const bool by_network = url->scheme == mom::store_scheme::tcp || url->scheme == mom::store_scheme::sentinel;
    fuzz::require(by_network == !url->hosts.empty(), "an address has a host where it needs one");
    for (const mom::endpoint &host : url->hosts)
        fuzz::require(!host.host.empty() && host.port != 0, "a host has a name and a port");
    fuzz::require(url->scheme != mom::store_scheme::unix_socket || !url->name.empty(), "a socket has a path");
    return 0;
}
