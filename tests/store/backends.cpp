// The kinds of store that the suite runs on.
#include "redis_server.hpp"
#include "suite.hpp"

namespace {

class mem_backend final : public store_backend {
  public:
    mem_backend() : address_("mem:suite-" + std::to_string(++made_)) {}
    std::string url(const std::string &options) const override
    {
        return options.empty() ? address_ : address_ + "?" + options;
    }

  private:
    static inline int made_ = 0;
    std::string address_;
};

// The disk's own speed is not what the suite is about: only the tests of crashes have each write wait for it.
class redis_backend final : public store_backend {
  public:
    redis_backend() { server_.start({"--appendfsync", "no"}); }
    std::string url(const std::string &options) const override
    {
        return server_.url("suite", options.empty() ? "timeout=10000" : "timeout=10000&" + options);
    }

  private:
    redis_server server_;
};

template <typename Backend> std::unique_ptr<store_backend> make()
{
    return std::make_unique<Backend>();
}

} // namespace

std::vector<backend_kind> backend_kinds()
{
    return {{"mem", make<mem_backend>}, {"redis", make<redis_backend>}};
}
