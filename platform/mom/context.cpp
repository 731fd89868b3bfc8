// tq_context.h: a loop and a store client, made and freed together.
#include "client.hpp"
#include "mem_engine.hpp"
#include "platform/guard.hpp"
#include "redis_engine.hpp"

#include <cerrno>
#include <cstdlib>

using namespace mom;

namespace {

std::string_view address_or_default(const char *address)
{
    if (address == nullptr)
        address = std::getenv("PLX_STORE");
    return address == nullptr || *address == '\0' ? "mem:" : address;
}

std::unique_ptr<engine> make_engine(const store_url &url, tq_thread_master *master)
{
    if (url.scheme == store_scheme::mem)
        return std::make_unique<mem_engine>(url, master);
    return std::make_unique<redis_engine>(url, master);
}

tq_context *make_context(const char *address, tq_thread_master *master)
{
    const auto url = parse_store_url(address_or_default(address));
    if (!url) {
        errno = EINVAL;
        return nullptr;
    }
    auto client = std::make_unique<tq_mom_client>();
    client->engine = make_engine(*url, master);
    auto context = std::make_unique<tq_context>();
    *context = {client.release(), master};
    return context.release();
}

} // namespace

tq_context *tq_context_new_on(const char *store_url, tq_thread_master *master)
try {
    if (master == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return make_context(store_url, master);
} catch (...) {
    return platform::thrown_errno<tq_context *>(nullptr);
}

tq_context *tq_context_new(const char *store_url)
{
    auto *loop = tq_loop_new();
    if (loop == nullptr)
        return nullptr;
    auto *context = tq_context_new_on(store_url, loop);
    if (context == nullptr) {
        const int reason = errno;
        tq_loop_free(loop);
        errno = reason;
        return nullptr;
    }
    context->mom->own_loop = loop;
    return context;
}

void tq_context_free(tq_context *context)
{
    if (context == nullptr)
        return;
    mom::forget_batch(context);
    auto *loop = context->mom->own_loop;
    delete context->mom;
    if (loop != nullptr)
        tq_loop_free(loop);
    delete context;
}
