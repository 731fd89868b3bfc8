// The kinds of store that the suite runs on.
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

} // namespace

std::vector<backend_kind> backend_kinds()
{
    return {{"mem", [] { return std::unique_ptr<store_backend>(new mem_backend); }}};
}
