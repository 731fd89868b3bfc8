// One transaction: what it makes of the model, and the messages that make the same of the kernel.
//
// It is filled with changes, written as a batch, and taken into the model once the kernel has taken the batch. Dropped,
// it leaves no trace.
#pragma once

#include "plane/nftables/expressions.hpp"
#include "plane/nftables/model.hpp"
#include "plane/nftables/table.hpp"

namespace plx::plane::nftables {

class Draft {
  public:
    // What the changes are made of outlives the draft.
    struct Setting {
        Model &model;
        const KernelTable &table;
        Netlink &netlink; // to read what is to be moved
        const packet::Config &config;
        const Interfaces &interfaces;
        uint32_t made_by;
    };
    explicit Draft(const Setting &setting) : setting_(setting) {}

    // `owner`: whom a failure concerns. Null: the entry goes.
    void set(const AceKey &key, const Requested *wanted, const Prepared *prepared, size_t owner);
    // None: it goes.
    void set(const Key &hook, const std::optional<Applied> &applied, size_t owner);

    // Writes the batch. Errors by owner of what cannot be written: then the draft is of no use.
    std::map<size_t, int> write();
    Batch &batch() { return batch_; }

    void take(const Outcome &outcome);

  private:
    struct ListDraft {
        Changed changed;
        std::map<uint64_t, std::pair<const Prepared *, size_t>> prepared; // and their owners
        std::map<uint64_t, std::optional<Requested>> conditional;
        Arranged arranged;
        std::map<const Entry *, std::vector<RuleImage>> images; // of entries that change or move
        bool stands = false;
        size_t owner = everybody;
    };

    struct HookDraft {
        std::optional<Applied> applied;
        size_t owner;
    };

    void toggle_conditional(const AclKey &key, const Acl &acl, ListDraft &list);
    void read_changing(const AclKey &key, const Acl &acl, ListDraft &list);
    bool needs_reading(const ListDraft &list, const PageChange &change) const;
    int read_page(const AclKey &key, const Acl &acl, ListDraft &list, const Page &page);
    int read_run(const AclKey &key, ListDraft &list, const PageChange &change);
    int read_moving(const std::string &map, const std::vector<EntryPointer> &entries, ListDraft &list);
    int read_lookups(const std::string &page, Run &run);
    int read_jumps(const AclKey &key, const Acl &acl);
    bool applied(const AclKey &acl) const;
    void write_list(const AclKey &key, ListDraft &list);
    void write_jumps(const AclKey &key, const ListDraft &list);
    void write_page(const AclKey &key, const ListDraft &list, const PageChange &change);
    void write_run(const AclKey &key, const ListDraft &list, const PageChange &change);
    void write_maps(const std::string &page, const PageChange &change, size_t owner);
    void write_entry(const AclKey &key, const ListDraft &list, const std::string &chain, const EntryPointer &entry,
                     Place place);
    void replace_entry(const AclKey &key, const ListDraft &list, const std::string &chain, const EntryPointer &entry,
                       const Entry &old);
    void write_rule(const AclKey &key, const Prepared &prepared, size_t rule, const std::string &chain, Place place,
                    const Counters &start, size_t owner);
    Counters counters_so_far(const AclKey &key, const ListDraft &list, uint64_t sn) const;
    void write_hook(const Key &key, const HookDraft &hook);
    void write_hook_rules(const std::string &chain, const Key &key, const HookDraft &hook);
    void remove_lists();
    void remove_page(const std::string &page, const Run *run, size_t owner);
    static void take_runs(Arranged &arranged);
    void fail(size_t owner, int error) { errors_.try_emplace(owner, error); }

    Setting setting_;
    Batch batch_;
    bool echo_ = true;
    std::map<AclKey, ListDraft> lists_;
    std::map<Key, HookDraft> hooks_;
    std::vector<std::unique_ptr<Prepared>> toggled_;
    std::vector<std::pair<size_t, PagePointer>> jumps_;           // by place in the batch
    std::vector<std::tuple<size_t, EntryPointer, size_t>> rules_; // and which of the entry's rules
    std::vector<std::tuple<size_t, RunPointer, packet::Layers::Place>> lookups_;
    std::set<std::string> counters_;
    std::map<size_t, int> errors_;
};

} // namespace plx::plane::nftables
