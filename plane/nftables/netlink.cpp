// See netlink.hpp.
#include "plane/nftables/netlink.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <endian.h>
#include <poll.h>
#include <sys/time.h>

namespace plx::plane::nftables {

namespace {

constexpr int tries = 3; // of a call that failed for a reason that passes
constexpr size_t receive_room = size_t(128) * 1024;
constexpr int reply_room = 64 * 1024 * 1024; // replies wait in the socket until a batch is done

bool passes(int error)
{
    return error == EINTR || error == EAGAIN || error == ENOBUFS;
}

nlmsghdr *put_message(uint8_t *at, uint16_t type, uint16_t flags, uint8_t family, uint16_t resource)
{
    nlmsghdr *message = mnl_nlmsg_put_header(at);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    auto *general = static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    general->nfgen_family = family;
    general->version = NFNETLINK_V0;
    general->res_id = htons(resource);
    return message;
}

// Calls `take` for each whole message; false when there is a part of one.
bool each_message(std::span<const uint8_t> bytes, const Netlink::Take &take)
{
    int left = static_cast<int>(bytes.size());
    const auto *message = reinterpret_cast<const nlmsghdr *>(bytes.data());
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
        take(*message);
    return left == 0;
}

// The errno that an error message carries, 0 for one without a failure.
int error_of(const nlmsghdr &message)
{
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nlmsgerr))
        return EBADMSG;
    return -static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(&message))->error;
}

void grow(int descriptor, int forced, int usual, int room)
{
    if (setsockopt(descriptor, SOL_SOCKET, forced, &room, sizeof room) != 0)
        setsockopt(descriptor, SOL_SOCKET, usual, &room, sizeof room); // as far as the system allows
}

} // namespace

// ---- attributes -----------------------------------------------------------------------------------------------------

Attributes::Attributes(const nlmsghdr &message, size_t header)
{
    const auto *begin = reinterpret_cast<const uint8_t *>(&message);
    if (message.nlmsg_len > MNL_NLMSG_HDRLEN + header)
        take(reinterpret_cast<const nlattr *>(begin + MNL_NLMSG_HDRLEN + header), begin + message.nlmsg_len);
}

Attributes::Attributes(const nlattr *nest)
{
    if (nest == nullptr)
        return;
    const auto *begin = static_cast<const uint8_t *>(mnl_attr_get_payload(nest));
    take(reinterpret_cast<const nlattr *>(begin), begin + mnl_attr_get_payload_len(nest));
}

void Attributes::take(const nlattr *first, const uint8_t *end)
{
    for (; mnl_attr_ok(first, static_cast<int>(end - reinterpret_cast<const uint8_t *>(first)));
         first = mnl_attr_next(first))
        if (mnl_attr_get_type(first) < found_.size())
            found_[mnl_attr_get_type(first)] = first;
}

std::span<const uint8_t> Attributes::bytes(size_t type) const
{
    if (!has(type))
        return {};
    return {static_cast<const uint8_t *>(mnl_attr_get_payload(found_[type])), mnl_attr_get_payload_len(found_[type])};
}

std::string_view Attributes::text(size_t type) const
{
    const auto raw = bytes(type);
    const auto end = std::find(raw.begin(), raw.end(), 0);
    return {reinterpret_cast<const char *>(raw.data()), static_cast<size_t>(end - raw.begin())};
}

uint32_t Attributes::number32(size_t type) const
{
    uint32_t number = 0;
    if (const auto raw = bytes(type); raw.size() == sizeof number)
        memcpy(&number, raw.data(), sizeof number);
    return ntohl(number);
}

uint64_t Attributes::number64(size_t type) const
{
    uint64_t number = 0;
    if (const auto raw = bytes(type); raw.size() == sizeof number)
        memcpy(&number, raw.data(), sizeof number);
    return be64toh(number);
}

void for_each(const nlattr *nest, const std::function<void(const nlattr *)> &take)
{
    if (nest == nullptr)
        return;
    const auto *begin = static_cast<const uint8_t *>(mnl_attr_get_payload(nest));
    const uint8_t *end = begin + mnl_attr_get_payload_len(nest);
    const auto *attribute = reinterpret_cast<const nlattr *>(begin);
    for (; mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const uint8_t *>(attribute)));
         attribute = mnl_attr_next(attribute))
        take(attribute);
}

void put32(nlmsghdr *message, uint16_t type, uint32_t number)
{
    mnl_attr_put_u32(message, type, htonl(number));
}

void put64(nlmsghdr *message, uint16_t type, uint64_t number)
{
    mnl_attr_put_u64(message, type, htobe64(number));
}

void put_text(nlmsghdr *message, uint16_t type, std::string_view text)
{
    mnl_attr_put_strz(message, type, std::string(text).c_str());
}

// ---- batches --------------------------------------------------------------------------------------------------------

Batch::Batch()
{
    put(NFNL_MSG_BATCH_BEGIN, 0, everybody);
}

nlmsghdr *Batch::add(uint16_t type, uint16_t flags, size_t owner)
{
    return put(nft_type(type), flags, owner);
}

nlmsghdr *Batch::put(uint16_t type, uint16_t flags, size_t owner)
{
    if (!owners_.empty())
        used_ += NLMSG_ALIGN(reinterpret_cast<const nlmsghdr *>(bytes_.data() + last_)->nlmsg_len);
    last_ = used_;
    if (bytes_.size() < used_ + message_room)
        bytes_.resize(std::max(used_ + message_room, bytes_.size() * 3 / 2));
    const bool bracket = type == NFNL_MSG_BATCH_BEGIN || type == NFNL_MSG_BATCH_END;
    const auto family = static_cast<uint8_t>(bracket ? AF_UNSPEC : NFPROTO_NETDEV);
    nlmsghdr *message = put_message(bytes_.data() + used_, type, flags, family, bracket ? NFNL_SUBSYS_NFTABLES : 0);
    message->nlmsg_seq = static_cast<uint32_t>(owners_.size());
    owners_.push_back(owner);
    return message;
}

// Leaves the room that the message took: the next one begins there.
void Batch::take_back()
{
    auto *message = reinterpret_cast<nlmsghdr *>(bytes_.data() + last_);
    message->nlmsg_len = 0;
    owners_.pop_back();
}

// A batch that is not whole lacks its end.
void Batch::close(bool whole)
{
    if (whole)
        put(NFNL_MSG_BATCH_END, 0, everybody);
    used_ += NLMSG_ALIGN(reinterpret_cast<const nlmsghdr *>(bytes_.data() + last_)->nlmsg_len);
}

// ---- the socket -----------------------------------------------------------------------------------------------------

int Netlink::open(int bus, unsigned groups)
{
    socket_.reset(mnl_socket_open2(bus, SOCK_CLOEXEC));
    if (socket_ == nullptr || mnl_socket_bind(socket_.get(), groups, MNL_SOCKET_AUTOPID) != 0)
        return errno;
    buffer_.resize(receive_room);
    grow(descriptor(), SO_RCVBUFFORCE, SO_RCVBUF, reply_room);
    int on = 1; // errors without the message that they are about
    setsockopt(descriptor(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
    const timeval patience{.tv_sec = 5, .tv_usec = 0};
    setsockopt(descriptor(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return 0;
}

int Netlink::send(std::span<const uint8_t> bytes)
{
    grow(descriptor(), SO_SNDBUFFORCE, SO_SNDBUF, static_cast<int>(bytes.size() + receive_room));
    for (int left = tries; left-- > 0;) {
        if (mnl_socket_sendto(socket_.get(), bytes.data(), bytes.size()) >= 0)
            return 0;
        if (!passes(errno))
            return errno;
    }
    return errno;
}

// One receipt. 0, or an errno; ENOBUFS when messages were lost.
int Netlink::receive(int flags, const Take &take)
{
    const ssize_t size = recv(descriptor(), buffer_.data(), buffer_.size(), flags | MSG_TRUNC);
    if (size < 0)
        return errno;
    const auto whole = std::min(static_cast<size_t>(size), buffer_.size());
    const bool complete = each_message(std::span(buffer_).first(whole), take);
    return complete && whole == static_cast<size_t>(size) ? 0 : ENOBUFS;
}

Outcome Netlink::send_batch(Batch &batch, bool whole)
{
    batch.close(whole);
    Outcome outcome;
    // What an earlier call left behind must not be taken for an answer to this one.
    const uint32_t base = sequence_ + 1;
    sequence_ += static_cast<uint32_t>(batch.owners_.size());
    uint8_t *const bytes = batch.bytes_.data();
    for (size_t at = 0, number = 0; at < batch.used_; ++number) {
        auto *message = reinterpret_cast<nlmsghdr *>(bytes + at);
        message->nlmsg_seq = static_cast<uint32_t>(base + number);
        at += NLMSG_ALIGN(message->nlmsg_len);
    }
    step();
    if (const int error = send({bytes, batch.used_}); error != 0) {
        outcome.errors[everybody] = error;
        return outcome;
    }
    const Take take = [&](const nlmsghdr &message) {
        const size_t number = message.nlmsg_seq - base;
        if (number >= batch.owners_.size())
            return;
        if (message.nlmsg_type == NLMSG_ERROR) {
            if (const int error = error_of(message); error != 0)
                outcome.errors.try_emplace(batch.owners_[number], error);
        } else if (message.nlmsg_type == nft_type(NFT_MSG_NEWRULE)) {
            outcome.handles[number] = Attributes(message, nfgen_size).number64(NFTA_RULE_HANDLE);
        }
    };
    // An answer that must come stands behind all that the kernel had to say about the batch.
    lost_ = false;
    std::vector<uint8_t> request;
    begin_request(request, NFT_MSG_GETGEN, 0);
    const int error = ask(
        request,
        [&](const nlmsghdr &message) { outcome.generation = Attributes(message, nfgen_size).number32(NFTA_GEN_ID); },
        take);
    outcome.lost = lost_ || error != 0;
    return outcome;
}

int Netlink::hear(const Take &take)
{
    int result = 0;
    for (int error = 0; error != EAGAIN;) {
        error = receive(MSG_DONTWAIT, take);
        if (error == ENOBUFS)
            result = error;
        else if (error != 0 && error != EAGAIN && error != EINTR)
            return error;
    }
    return result;
}

uint32_t Netlink::generation()
{
    uint32_t number = 0;
    std::vector<uint8_t> request;
    begin_request(request, NFT_MSG_GETGEN, 0);
    ask(request,
        [&number](const nlmsghdr &message) { number = Attributes(message, nfgen_size).number32(NFTA_GEN_ID); });
    return number;
}

int Netlink::ask(std::vector<uint8_t> &request, const Take &take, const Take &others)
{
    auto *message = reinterpret_cast<nlmsghdr *>(request.data());
    int error = 0;
    for (int left = tries; left-- > 0;) {
        message->nlmsg_seq = ++sequence_;
        error = send({request.data(), message->nlmsg_len});
        if (error == 0)
            error = take_answer(sequence_, take, others);
        if (!passes(error))
            return error;
        lost_ = lost_ || error == ENOBUFS;
    }
    return error;
}

// Messages are handed over once all of them are there: the answer may have to be asked for again.
int Netlink::take_answer(uint32_t sequence, const Take &take, const Take &others)
{
    std::vector<uint8_t> answer;
    int error = 0;
    bool ended = false;
    while (!ended) {
        step();
        const int received = receive(0, [&](const nlmsghdr &message) {
            if (message.nlmsg_seq != sequence)
                return others(message);
            if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0)
                error = EINTR;
            ended = ended || message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR;
            if (message.nlmsg_type == NLMSG_ERROR)
                error = error_of(message);
            const auto *begin = reinterpret_cast<const uint8_t *>(&message);
            if (message.nlmsg_type >= NLMSG_MIN_TYPE)
                answer.insert(answer.end(), begin, begin + NLMSG_ALIGN(message.nlmsg_len));
        });
        if (received != 0)
            return received;
    }
    if (error == 0)
        each_message(answer, [&](const nlmsghdr &message) {
            step();
            take(message);
        });
    return error;
}

nlmsghdr *begin_request(std::vector<uint8_t> &bytes, uint16_t type, uint16_t flags, size_t room)
{
    bytes.assign(room, 0);
    const uint16_t ends = (flags & NLM_F_DUMP) == NLM_F_DUMP ? 0 : NLM_F_ACK;
    return put_message(bytes.data(), nft_type(type), static_cast<uint16_t>(flags | ends), NFPROTO_NETDEV, 0);
}

} // namespace plx::plane::nftables
