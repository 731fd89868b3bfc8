// The store double's batches, apart: a platform may do without.
#include "fakes.h"

#include <algorithm>

using fake::store;

extern "C" {

int tq_mom_batch_begin(void *)
{
    store.calls.push_back("batch");
    if (store.refusing || store.foreign || store.batching)
        return TQ_MOM_INVALID;
    store.collected.clear();
    store.batching = true;
    return 0;
}

int tq_mom_batch_open(const void *)
{
    return store.batching || store.foreign;
}

int tq_mom_batch_end(void *, int *results, uint32_t count)
{
    store.calls.push_back("settled " + std::to_string(store.collected.size()));
    if (count != store.collected.size())
        abort(); // results would be taken for other calls'
    store.batching = false;
    if (const int result = store.script["settled"].next(); result != 0)
        return result; // and nothing is known of any
    std::copy(store.collected.begin(), store.collected.end(), results);
    const auto failed =
        std::find_if(store.collected.begin(), store.collected.end(), [](int each) { return each != 0; });
    return failed == store.collected.end() ? 0 : *failed;
}

} // extern "C"
