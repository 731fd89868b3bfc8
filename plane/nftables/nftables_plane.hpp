// A forwarding plane in the Linux kernel: nf_tables chains on the ingress and egress hooks of network interfaces.
//
// Each node has a table of the netdev family to itself. An apply is a base chain on its port's interface, which jumps
// to the head chain of the ACL; the head jumps to pages of the ACL's entries in order (pages.hpp). So an accepted frame
// has passed one ACL, and the next apply's chain still judges it; a dropped one is gone. What the kernel has is what is
// in force, whether a node runs or not: each rule carries what it was made for (tags.hpp), and start() takes it up.
//
// One transaction makes the changes of one call of program() (draft.hpp). The kernel tells which messages it refused:
// the changes that they belong to are left out, and the rest is sent again.
#pragma once

#include "plane/nftables/draft.hpp"
#include "plane/nftables/links.hpp"
#include "plane/nftables/model.hpp"
#include "plane/nftables/table.hpp"
#include "plane/plane.hpp"
#include <functional>

namespace plx::plane::nftables {

struct NftablesOptions {
    std::string table; // its name: one for each node
    packet::Config config;
    size_t table_size = 1000000; // entries (ACEs) that fit
};

class NftablesPlane final : public Plane {
  public:
    using Log = std::function<void(const std::string &text)>;

    NftablesPlane(NftablesOptions options, Log log);

    // Takes the table up, or makes it. 0 or an errno: EPERM without CAP_NET_ADMIN, or when another process has the
    // table.
    int start();

    // Who has the table, when another process has it: "process 12 (plx)"; else "".
    std::string holder();

    // Other interfaces for the ports, from the next look() on.
    void set_ports(std::map<uint32_t, std::string> ports);

    std::vector<Answer> program(std::span<const Change> changes) override;
    std::vector<Answer> try_out(std::span<const Change> changes) override;
    std::map<Key, Installed> installed() const override;
    Description describe() const override;
    std::optional<std::vector<std::pair<Key, Installed>>> read_back(const std::string &app) override;
    std::vector<std::pair<AceKey, Counters>> counters() override;
    int descriptor() const override { return links_.descriptor(); }
    std::vector<Key> look() override;

  private:
    struct Judged {
        Status status = Status::ok;
        std::string text;               // why not
        std::optional<Prepared> entry;  // of an entry that is to be
        std::optional<Applied> applied; // of a hook that is to be
    };

    int create();
    void remove_old_meters();
    Judged judge(const Change &change);
    Judged judge_entry(const AceKey &key, const Requested &wanted);
    void share_shape(Entry &entry);
    Judged judge_hook(const Key &key, const Requested &wanted) const;
    void judge_together(std::span<const Change> changes, std::vector<Judged> &judged) const;
    uint8_t directions_used(const AclKey &acl) const;
    Draft draft(std::span<const Change> changes, const std::vector<Judged> &judged);
    void commit(std::span<const Change> changes, std::vector<Judged> &judged);
    std::vector<Judged> judge_all(std::span<const Change> changes);
    static void refuse(std::span<const Change> changes, std::vector<Judged> &judged,
                       const std::map<size_t, int> &errors);
    void tell_error(const char *what, int error);
    void reread();
    void tell(const Key &key, const Judged &judged) const;

    using Counted = std::vector<std::pair<AceKey, Counters>>;
    Counted read_page(const AclKey &key, const Page &page);
    Counted read_run(const AclKey &key, const Page &page);
    std::map<std::string, uint32_t> named_interfaces() const;
    std::string interface_of(const Key &key) const; // "" of a port that is not here
    void take_moved_hooks(std::set<Key> &keys);
    void take_entries_by_interface(std::set<Key> &keys) const;
    void take_foreign_changes(std::set<Key> &keys);

    NftablesOptions options_;
    Log log_;
    KernelTable table_;
    uint32_t made_by_;
    std::vector<uint32_t> refused_attributes_;
    Netlink netlink_;
    Links links_;
    Model model_;
    std::vector<ShapePointer> shapes_; // of entries that were judged last
    bool owned_ = false;               // nobody else can change the table
    uint32_t generation_ = 0;
    uint64_t errors_ = 0; // that the kernel gave
    bool ports_changed_ = false;
    std::map<std::string, uint32_t> named_;              // interfaces that the configuration names, and their numbers
    std::set<Key> waiting_;                              // refused for want of an interface, or of a port
    std::optional<std::pair<AclKey, Position>> counted_; // the last entry whose counters were read
};

} // namespace plx::plane::nftables
