// The network interfaces that there are, and a descriptor that tells when they change.
#pragma once

#include "plane/nftables/expressions.hpp"
#include "plane/nftables/netlink.hpp"

namespace plx::plane::nftables {

class Links final : public Interfaces {
  public:
    int open(); // 0 or an errno
    int descriptor() const { return news_.descriptor(); }

    // Takes the news. Whether interfaces came, went or were renamed since the last call.
    bool refresh();
    std::optional<uint32_t> index_of(const std::string &name) const override;

  private:
    std::map<std::string, uint32_t> read();

    Netlink news_, questions_; // apart: news must not come between a question and its answer
    std::map<std::string, uint32_t> indices_;
};

} // namespace plx::plane::nftables
