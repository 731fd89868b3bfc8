// Talking to the kernel's nf_tables: a socket, batches of messages, dumps, and the walk over a message's attributes.
//
// A batch is one transaction: the kernel takes all of its messages or none, and tells which of them it refused. It
// works inside of the call that sends, so that all replies are there when that call returns. What the kernel sends is
// checked before it is believed: lengths, types and texts.
#pragma once

#include <netinet/in.h> // before the kernel's headers, which then leave out what it has

#include <array>
#include <cstdint>
#include <functional>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace plx::plane::nftables {

// ---- attributes -----------------------------------------------------------------------------------------------------

// The attributes of a message or of a nest, by type; those of greater types are left out.
class Attributes {
  public:
    Attributes(const nlmsghdr &message, size_t header);
    explicit Attributes(const nlattr *nest); // none when `nest` is null

    const nlattr *operator[](size_t type) const { return found_[type]; }
    bool has(size_t type) const { return found_[type] != nullptr; }
    std::span<const uint8_t> bytes(size_t type) const; // empty when it is not there
    std::string_view text(size_t type) const;          // up to its end, "" when it is not there
    uint32_t number32(size_t type) const;              // in network byte order, 0 when it is not there
    uint64_t number64(size_t type) const;

  private:
    void take(const nlattr *first, const uint8_t *end);
    std::array<const nlattr *, 32> found_{};
};

// Calls `take` for each attribute of a nest.
void for_each(const nlattr *nest, const std::function<void(const nlattr *)> &take);

void put32(nlmsghdr *message, uint16_t type, uint32_t number); // in network byte order
void put64(nlmsghdr *message, uint16_t type, uint64_t number);
void put_text(nlmsghdr *message, uint16_t type, std::string_view text);

// A nest that ends with its scope.
class Nest {
  public:
    Nest(nlmsghdr *message, uint16_t type) : message_(message), nest_(mnl_attr_nest_start(message, type)) {}
    ~Nest() { mnl_attr_nest_end(message_, nest_); }
    Nest(const Nest &) = delete;
    Nest &operator=(const Nest &) = delete;

  private:
    nlmsghdr *message_;
    nlattr *nest_;
};

// ---- batches --------------------------------------------------------------------------------------------------------

class Batch {
  public:
    Batch();

    // A message of nf_tables (NFT_MSG_*) about the netdev family, with room for `message_room` bytes in all. It is
    // valid until the next. `owner` tells whom a failure of the message concerns.
    nlmsghdr *add(uint16_t type, uint16_t flags, size_t owner);
    void take_back(); // the last one added
    size_t size() const { return owners_.size() - 1; }

    static constexpr size_t message_room = 12288;

  private:
    friend class Netlink;
    nlmsghdr *put(uint16_t type, uint16_t flags, size_t owner);
    void close(bool whole);

    std::vector<uint8_t> bytes_;
    size_t used_ = 0, last_ = 0;
    std::vector<size_t> owners_; // of each message by its sequence number; the bracket's own is the first
};

// Whom a failure concerns when it is nobody in particular.
constexpr size_t everybody = SIZE_MAX;

struct Outcome {
    std::map<size_t, int> errors;       // errno of the first refused message of each owner: nothing was changed
    std::map<size_t, uint64_t> handles; // of created rules whose message asked for an echo, by place in the batch
    uint32_t generation = 0;            // of all that nf_tables has, behind the batch
    bool lost = false;                  // replies were lost: whether the batch was taken is to be read
    bool done() const { return errors.empty() && !lost; }
};

// ---- the socket -----------------------------------------------------------------------------------------------------

class Netlink {
  public:
    // 0 or an errno. `bus`: NETLINK_NETFILTER or NETLINK_ROUTE; `groups`: multicast groups to hear of.
    int open(int bus, unsigned groups = 0);
    // Called for each message of a long answer, and by who has as much to do for each of many.
    void set_step(std::function<void()> step) { step_ = std::move(step); }
    void step() const { step_(); }
    int descriptor() const { return mnl_socket_get_fd(socket_.get()); }

    Outcome commit(Batch &batch) { return send_batch(batch, true); }
    // The kernel goes through all of it, and drops it for want of its end.
    Outcome try_out(Batch &batch) { return send_batch(batch, false); }
    uint32_t generation(); // counts the changes of all of nf_tables, by anybody; 0 when it cannot be read

    using Take = std::function<void(const nlmsghdr &message)>;
    // Sends a request that is answered with any number of messages, and hands them over. 0 or an errno.
    // What else comes meanwhile goes to `others`.
    int ask(
        std::vector<uint8_t> &request, const Take &take, const Take &others = [](const nlmsghdr &) {});
    // What has come by itself; 0, or ENOBUFS when something was lost.
    int hear(const Take &take);

  private:
    struct Closer {
        void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
    };

    Outcome send_batch(Batch &batch, bool whole);
    int send(std::span<const uint8_t> bytes);
    int receive(int flags, const Take &take);
    int take_answer(uint32_t sequence, const Take &take, const Take &others);

    std::unique_ptr<mnl_socket, Closer> socket_;
    std::function<void()> step_ = [] {};
    std::vector<uint8_t> buffer_;
    uint32_t sequence_ = 0;
    bool lost_ = false; // something, since this was reset
};

// A request about the netdev family, of at most `room` bytes: the message that `ask` sends.
nlmsghdr *begin_request(std::vector<uint8_t> &bytes, uint16_t type, uint16_t flags, size_t room = 1024);

constexpr uint16_t nft_type(uint16_t message)
{
    return static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8U | message);
}
constexpr size_t nfgen_size = MNL_ALIGN(sizeof(nfgenmsg));

} // namespace plx::plane::nftables
