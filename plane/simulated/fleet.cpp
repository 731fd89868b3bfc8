// See fleet.hpp.
#include "plane/simulated/fleet.hpp"

namespace plx::plane {

int Fleet::add(SimulatedOptions plane)
{
    Context context(tq_context_new_on(store_url_.c_str(), master_));
    if (context == nullptr)
        return TQ_MOM_INVALID;
    NodeOptions options = options_;
    options.id = static_cast<uint32_t>(members_.size());
    members_.push_back(std::make_unique<Member>(std::move(plane), std::move(context), options));
    const int result = members_.back()->node.start();
    if (result != 0)
        members_.pop_back();
    return result;
}

} // namespace plx::plane
