// Which engine an address asks for.
#include "engine.hpp"

#include "mem_engine.hpp"
#include "redis_changes.hpp"

namespace mom {

std::unique_ptr<engine> make_engine(const store_url &url, tq_thread_master *master)
{
    if (url.scheme == store_scheme::mem)
        return std::make_unique<mem_engine>(url, master);
    return std::make_unique<redis_engine>(url, master);
}

} // namespace mom
