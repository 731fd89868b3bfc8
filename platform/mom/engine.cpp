// Which engine an address asks for.
#include "engine.hpp"

#include "mem_engine.hpp"

#include <stdexcept>

namespace mom {

std::unique_ptr<engine> make_engine(const store_url &url, tq_thread_master *master)
{
    if (url.scheme == store_scheme::mem)
        return std::make_unique<mem_engine>(url, master);
    throw std::runtime_error("no engine for this kind of store");
}

} // namespace mom
