// See links.hpp.
#include "plane/nftables/links.hpp"

#include <linux/rtnetlink.h>

namespace plx::plane::nftables {

int Links::open()
{
    if (const int error = news_.open(NETLINK_ROUTE, RTMGRP_LINK); error != 0)
        return error;
    if (const int error = questions_.open(NETLINK_ROUTE); error != 0)
        return error;
    indices_ = read();
    return 0;
}

bool Links::refresh()
{
    bool any = false;
    const int error = news_.hear([&any](const nlmsghdr &) { any = true; });
    if (!any && error == 0)
        return false;
    auto indices = read();
    std::swap(indices, indices_);
    return indices != indices_;
}

std::optional<uint32_t> Links::index_of(const std::string &name) const
{
    const auto link = indices_.find(name);
    return link == indices_.end() ? std::nullopt : std::optional(link->second);
}

std::map<std::string, uint32_t> Links::read()
{
    std::map<std::string, uint32_t> indices;
    std::vector<uint8_t> request(1024);
    nlmsghdr *message = mnl_nlmsg_put_header(request.data());
    message->nlmsg_type = RTM_GETLINK;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    questions_.ask(request, [&indices](const nlmsghdr &answer) {
        if (answer.nlmsg_type != RTM_NEWLINK || mnl_nlmsg_get_payload_len(&answer) < sizeof(ifinfomsg))
            return;
        const auto *link = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(&answer));
        const std::string_view name = Attributes(answer, MNL_ALIGN(sizeof(ifinfomsg))).text(IFLA_IFNAME);
        indices.emplace(name, static_cast<uint32_t>(link->ifi_index));
    });
    return indices;
}

} // namespace plx::plane::nftables
