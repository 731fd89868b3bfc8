// The plain model: what the cache, the pending requests, the store and the application must show after any sequence of
// operations. Maps and rules, no pointers, nothing of the library's.
//
// Every event that the application must hear goes through hear(), in order. An operation that was armed for the next
// event runs in there, as it does inside the application's callback: no rule holds on to an entry across hear().
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <support/application.h>
#include <vector>

namespace plain {

constexpr int32_t heard_result = 7; // what every callback returns
constexpr int32_t store_failure = 9;
const std::string security = "security_app";

struct acl_key {
    std::string type;
    uint32_t id;
    auto operator<=>(const acl_key &) const = default;
    std::string name() const { return fake::format("%s/%u", type.c_str(), id); }
    std::string record() const { return fake::format("5 acl[%s,%u]", type.c_str(), id); }
};

// An ACE (no apply_type) or an apply.
struct target {
    acl_key acl;
    uint64_t sn;
    std::string apply_type;
    uint32_t phyid, pri;
    auto operator<=>(const target &) const = default;

    bool is_apply() const { return !apply_type.empty(); }
    std::string kind() const { return is_apply() ? "apply" : "ace"; }
    std::string name() const
    {
        return acl.name() + (is_apply() ? fake::format("@%s/%x/%u/0", apply_type.c_str(), phyid, pri)
                                        : fake::format("/%llx", static_cast<unsigned long long>(sn)));
    }
    std::string record() const
    {
        return is_apply()
                   ? fake::format("5 apply[%s,%u,%s,%u,%u,0]", apply_type.c_str(), acl.id, acl.type.c_str(), phyid, pri)
                   : fake::format("5 ace[%s,%u,%llu]", acl.type.c_str(), acl.id, static_cast<unsigned long long>(sn));
    }
};

struct entry {
    uint64_t uuid = 0, older = 0; // of the newest write, and of the one before
    int stat = 0;
    uint8_t count = 0;
    bool is_req = false;
    uint64_t request = 0; // its number in `requests`, or 0
    int priv = -1;        // the first private byte; -1: all are zero
    uint32_t value_pri = 0;
};

using node_key = std::tuple<uint32_t, uint32_t, uint32_t>; // device, slot, id

struct request {
    target of;
    uint64_t since, pass; // when it was written last, and in the newest pass's time
};

class model {
  public:
    std::map<acl_key, int> acls;
    std::map<target, entry> entries;
    std::map<uint64_t, request> requests; // oldest submission first
    std::map<node_key, uint64_t> nodes;
    std::set<std::string> records;         // addresses of database 5
    std::map<std::string, target> foreign; // of database 8, by address
    std::map<std::string, std::set<std::string>> marks;
    fake::lines events;
    bool skips_priority = false;
    std::function<void()> on_event;

    std::string failing; // while an operation runs: the store's operation that fails, or "all"

    int32_t set_acl(const acl_key &key, int priv)
    {
        settle_and_forget();
        acls[key];
        if (fails("hmset")) {
            forget(key);
            return hear("acl fail " + key.name() + " 9" + bytes(priv));
        }
        write(key.record());
        return hear("acl ok " + key.name() + "/0" + bytes(priv));
    }

    int32_t set_ace(const target &t, int priv)
    {
        make_room();
        const uint64_t id = request_id();
        if (!acls.count(t.acl)) {
            settle();
            note(-7);
            return hear("ace fail " + t.name() + " -7" + bytes(priv));
        }
        start_over(t, priv, id);
        return written(t, t, priv);
    }

    int32_t set_apply(const target &given, int priv)
    {
        const target t = cached_as(given);
        make_room();
        if (!knows_class(t.acl))
            settle();
        const uint64_t id = request_id();
        acls[t.acl];
        if (auto at = entries.find(t); at != entries.end() && at->second.value_pri != given.pri) {
            target old = given;
            old.pri = at->second.value_pri;
            erase_collected(old.record(), 2);
        }
        start_over(t, priv, id).value_pri = given.pri;
        if (open && (t.acl.type != security || !fails("get")))
            classes[t.acl.id % 64] = t.acl;
        return written(t, given, priv);
    }

    int32_t bulk(const std::string &what)
    {
        if (what == "begin" ? open : !open || settling)
            return -4;
        if (what == "begin") {
            open = true;
            failed = 0;
            last_id = 0;
            return 0;
        }
        const int32_t failure = settle();
        classes.clear();
        open = what == "flush";
        return open ? failure : failed;
    }

    int32_t del_acl(const acl_key &key)
    {
        settle_and_forget();
        erase(key.record());
        forget(key);
        return 0;
    }

    int32_t del(const target &given)
    {
        make_room();
        erase_collected(given.record(), given.is_apply() ? 2 : 1);
        forget(cached_as(given));
        return 0;
    }

    int32_t expire(const std::string &table, const std::string &type)
    {
        settle();
        if (fails("dsbegin"))
            return store_failure;
        const std::string prefix = "5 " + table + "[" + type + ",";
        marks[prefix].clear();
        for (auto at = records.lower_bound(prefix); at != records.end() && at->compare(0, prefix.size(), prefix) == 0;
             ++at)
            marks[prefix].insert(*at);
        return 0;
    }

    int32_t del_expire(const std::string &table, const std::string &type)
    {
        settle();
        if (fails("dsend"))
            return store_failure;
        const auto mark = marks.find("5 " + table + "[" + type + ",");
        if (mark == marks.end())
            return TQ_MOM_NO_MARK;
        for (const std::string &record : mark->second)
            records.erase(record);
        marks.erase(mark);
        return 0;
    }

    // A change of an ACL or ACE of database 8 that somebody else made.
    int32_t change(const std::string &table, const target &t, bool deleted)
    {
        const bool is_acl = table == "acl";
        std::string address = is_acl ? t.acl.record() : t.record();
        address[0] = '8';
        if (!deleted) {
            foreign[address] = t;
            return learn(table, t);
        }
        foreign.erase(address);
        is_acl ? forget(t.acl) : forget(t);
        hear(table + " change " + (is_acl ? t.acl.name() : t.name()) + " 1");
        return 0;
    }

    int32_t resync(const std::string &table)
    {
        const auto all = fails("scan") ? std::map<std::string, target>{} : foreign;
        for (const auto &[address, t] : all)
            if (address.find(table) != std::string::npos)
                learn(table, t);
        return 0;
    }

    // An answer to the newest write of an entry, or to the one before. `uuids` remembers what it carried.
    int32_t answer(const target &given, int status, const std::string &which)
    {
        const target t = cached_as(given);
        auto at = entries.find(t);
        uuids.push_back(at == entries.end() ? 1 : which == "older" ? at->second.older : at->second.uuid);
        if (at == entries.end() || at->second.stat != 0 || at->second.uuid != uuids.back())
            return 0;
        judge(t, status);
        at = entries.find(t);
        if (at != entries.end() && at->second.is_req)
            drop_request(t);
        return 0;
    }
    std::deque<uint64_t> uuids;

    int32_t alive(const node_key &node)
    {
        nodes[node] = now();
        return 0;
    }

    // Time passes, or goes back; then what the timers do.
    int32_t tick(int64_t us)
    {
        fake::clock.now_us += static_cast<uint64_t>(us);
        if (std::erase_if(nodes, [&](auto &node) { return older_than(node.second, 20); }) != 0)
            pass(true);
        return pass(false);
    }

    // One ageing pass over the requests that wait when it begins, but for what a callback writes meanwhile.
    int32_t pass(bool forced)
    {
        settle();
        const uint64_t number_of_pass = ++passes;
        std::vector<uint64_t> waiting;
        for (const auto &[number, waits] : requests)
            waiting.push_back(number);
        for (const uint64_t number : waiting) {
            const auto at = requests.find(number);
            if (at == requests.end() || at->second.pass >= number_of_pass)
                continue;
            const target t = at->second.of;
            const entry &e = entries[t];
            const bool being_told = e.is_req; // its request leaves when its callback returns
            if (!being_told && (older_than(at->second.since, 180) || (forced && e.count >= live())))
                end(t);
        }
        return 0;
    }

    // From then on: as a script's first line.
    int32_t skip_priority() { return skips_priority = true; }

    target cached_as(target t) const
    {
        t.pri = skips_priority ? 0 : t.pri;
        return t;
    }

  private:
    bool fails(const char *operation) const { return failing == "all" || failing == operation; }
    int live() const { return static_cast<int>(nodes.size()); }
    static uint64_t now() { return fake::clock.now_us; }
    static bool older_than(uint64_t since, uint64_t seconds)
    {
        return now() < since || now() - since >= seconds * 1'000'000; // a clock that went back ages, too
    }
    static std::string bytes(int priv)
    {
        return priv < 0 ? " " + std::string(64, '0') : fake::format(" <%d:32>", priv);
    }

    int32_t hear(const std::string &event)
    {
        events.push_back(event);
        on_event();
        return heard_result;
    }

    void write(const std::string &record)
    {
        records.insert(record);
        for (auto &mark : marks)
            mark.second.erase(record);
    }
    void erase(const std::string &record)
    {
        if (!fails("del"))
            records.erase(record);
    }

    bool is_applied(const acl_key &key) const
    {
        return std::any_of(entries.begin(), entries.end(),
                           [&](auto &e) { return e.first.acl == key && e.first.is_apply(); });
    }

    int32_t learn(const std::string &table, const target &t)
    {
        acls[t.acl];
        if (table != "acl")
            entries[t];
        hear(table + " change " + (table == "acl" ? t.acl.name() : t.name()) + " 0");
        return 0;
    }

    // ---- brackets: what is collected is in the store already, and told when it is settled

    struct collected {
        target cached, given;
        uint64_t uuid; // 0: a removal, which tells nothing
        bool fails;
        int priv;
    };
    bool open = false, settling = false;
    std::vector<collected> ring;
    int32_t failed = 0;
    uint64_t last_id = 0;
    std::map<uint32_t, acl_key> classes;

    bool collects() const { return open && !settling; }
    void make_room()
    {
        if (ring.size() + 3 > 256)
            settle();
    }
    void note(int32_t failure) { failed = open && failed == 0 ? failure : failed; }
    uint64_t request_id() { return !open ? now() : last_id = std::max(now(), last_id + 1); }
    bool knows_class(const acl_key &acl) const
    {
        const auto at = classes.find(acl.id % 64);
        return open && at != classes.end() && at->second == acl;
    }
    void settle_and_forget()
    {
        settle();
        classes.clear();
    }

    int32_t settle()
    {
        if (ring.empty() || settling)
            return 0;
        settling = true;
        const int32_t earlier = std::exchange(failed, 0);
        for (const collected &one : std::exchange(ring, {})) {
            const auto at = entries.find(one.cached);
            if (one.uuid != 0 && at != entries.end() && at->second.uuid == one.uuid && !at->second.is_req)
                finish(one);
        }
        settling = false;
        const int32_t failure = failed;
        failed = earlier != 0 ? earlier : failed;
        return failure;
    }

    int32_t written(const target &cached, const target &given, int priv)
    {
        const collected one = {cached, given, entries[cached].uuid, fails("hmset"), priv};
        if (!one.fails)
            write(given.record());
        if (!collects())
            return finish(one);
        ring.push_back(one);
        return 0;
    }

    int32_t finish(const collected &one)
    {
        const target &t = one.cached;
        if (one.fails) {
            forget(t);
            note(store_failure);
            return hear(t.kind() + " fail " + one.given.name() + " 9" + bytes(one.priv));
        }
        if (t.is_apply() || t.acl.type == security || is_applied(t.acl))
            return track(t);
        drop_request(t);
        entries[t].is_req = true;
        return hear("ace ok " + t.name() + bytes(one.priv));
    }

    void erase_collected(const std::string &record, size_t removals)
    {
        erase(record);
        if (collects())
            ring.insert(ring.end(), removals, {});
    }

    entry &start_over(const target &t, int priv, uint64_t id)
    {
        entry &e = entries[t];
        e = {id, e.uuid, 0, 0, false, e.request, priv, e.value_pri};
        return e;
    }

    int32_t track(const target &t)
    {
        entry &e = entries[t];
        if (!e.request)
            e.request = ++last_request;
        requests[e.request] = {t, now(), passes};
        return 0;
    }

    void drop_request(const target &t)
    {
        requests.erase(entries[t].request);
        entries[t].request = 0;
    }

    void forget(const target &t)
    {
        if (entries.count(t))
            drop_request(t);
        entries.erase(t);
    }

    void forget(const acl_key &key)
    {
        acls.erase(key);
        for (auto at = entries.begin(); at != entries.end();) {
            const target t = (at++)->first;
            if (t.acl == key)
                forget(t);
        }
    }

    void tell(const target &t, int status)
    {
        const entry &e = entries[t];
        hear(t.kind() + (status ? " fail " : " ok ") + t.name() + (status ? fake::format(" %d", status) : "") +
             bytes(e.priv));
    }

    // A reply. A failure is told even behind a success: a node may refuse what enough others took.
    void judge(const target &t, int status)
    {
        entry &e = entries[t];
        if (status == 0) {
            ++e.count;
            if (e.is_req || e.count < live())
                return;
        }
        e.stat = status;
        e.is_req = true;
        tell(t, status);
    }

    // An aged request, or one that enough nodes have answered. A success unless a failure is known.
    void end(const target &t)
    {
        drop_request(t);
        entry &e = entries[t];
        e.is_req = true;
        e.stat = e.count >= live() ? 0 : e.stat;
        tell(t, e.stat);
    }

    uint64_t last_request = 0, passes = 0;
};

} // namespace plain
