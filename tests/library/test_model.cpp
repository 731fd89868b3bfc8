// Random operations against a plain model: std::maps of what the cache, the pending list and the store must hold, and
// the callbacks that must have been heard. A failure prints its seed; PLX_TEST_SEED repeats it.
#include <cstdlib>
#include <random>
#include <support/application.h>

namespace {

struct entry_model {
    uint64_t uuid;
    uint64_t since; // when it began to wait, or 0
    int stat, count;
    bool is_req;
};

struct apply_key {
    std::string apply_type;
    uint32_t phyid, pri;
    auto operator<=>(const apply_key &) const = default;
};

struct acl_model {
    std::map<uint64_t, entry_model> aces;
    std::map<apply_key, entry_model> applies;
};

class model : public library_case {
  protected:
    using acl_key = std::pair<std::string, uint32_t>;

    model() { start(); }

    uint32_t up_to(uint32_t n) { return static_cast<uint32_t>(random() % n); }
    acl_key any_acl() { return {up_to(2) ? "security_app" : "my_app", up_to(3)}; }
    apply_key any_apply() { return {up_to(2) ? "security_app" : "my_app", up_to(3), up_to(2)}; }
    int live() const { return static_cast<int>(nodes.size()); }
    static std::string name(const acl_key &key, uint64_t sn)
    {
        return fake::format("%s/%u/%llx", key.first.c_str(), key.second, static_cast<unsigned long long>(sn));
    }
    static std::string name(const acl_key &key, const apply_key &apply)
    {
        return fake::format("%s/%u@%s/%x/%u/0", key.first.c_str(), key.second, apply.apply_type.c_str(), apply.phyid,
                            apply.pri);
    }
    static std::string kind(uint64_t) { return "ace"; }
    static std::string kind(const apply_key &) { return "apply"; }

    template <class Key> void hear(const acl_key &acl, const Key &key, int status)
    {
        expected.push_back(kind(key) + (status ? " fail " : " ok ") + name(acl, key) +
                           (status ? " " + std::to_string(status) : ""));
    }

    void set_an_acl()
    {
        const acl_key key = any_acl();
        const bool fails = up_to(8) == 0;
        fake::store.script["hmset"] = {fails ? 9 : 0};
        set_acl(key.first, key.second);
        if (fails)
            acls.erase(key);
        else
            acls[key];
    }

    void set_an_ace()
    {
        const acl_key key = any_acl();
        const uint64_t sn = up_to(6);
        const bool fails = up_to(8) == 0;
        fake::store.script["hmset"] = {fails ? 9 : 0};
        set_ace(key.first, key.second, sn);
        fake::store.script.clear();
        auto acl = acls.find(key);
        if (acl == acls.end())
            return hear(key, sn, -7);
        if (fails) {
            acl->second.aces.erase(sn);
            return hear(key, sn, 9);
        }
        entry_model &ace = acl->second.aces[sn];
        ace = {now(), 0, 0, 0, false};
        if (key.first != "security_app" && acl->second.applies.empty()) {
            ace.is_req = true; // an earlier request has its answer too
            hear(key, sn, 0);
        } else {
            ace.since = now();
        }
    }

    void set_an_apply()
    {
        const acl_key key = any_acl();
        const apply_key apply = any_apply();
        const bool fails = up_to(8) == 0;
        fake::store.script["hmset"] = {fails ? 9 : 0};
        set_apply(key.first, key.second, apply.apply_type, apply.phyid, apply.pri);
        acl_model &acl = acls[key];
        if (fails) {
            acl.applies.erase(apply);
            return hear(key, apply, 9);
        }
        acl.applies[apply] = {now(), now(), 0, 0, false};
    }

    void remove()
    {
        const acl_key key = any_acl();
        const fp_udp_acl_key as_key = make_key(key.first, key.second);
        const fp_udp_acl_info info = make_info(key.first, key.second);
        const apply_key apply = any_apply();
        const uint64_t sn = up_to(6);
        auto acl = acls.find(key);
        switch (up_to(5)) {
        case 0:
            mgr->del_acl(&context, &as_key);
            acls.erase(key);
            break;
        case 1:
        case 2:
            mgr->delete_ace(&context, &as_key, sn);
            if (acl != acls.end())
                acl->second.aces.erase(sn);
            break;
        default:
            mgr->del_apply(&context, &info, make_apply(mgr, apply.apply_type, apply.phyid, apply.pri).get());
            if (acl != acls.end())
                acl->second.applies.erase(apply);
        }
    }

    template <class Key> void judge(const acl_key &acl, const Key &key, entry_model &entry, int status, uint64_t uuid)
    {
        if (entry.stat != 0 || entry.uuid != uuid)
            return;
        if (status == 0) {
            entry.count++;
            if (entry.is_req || entry.count < live()) {
                entry.since = entry.is_req ? 0 : entry.since;
                return;
            }
        }
        entry.stat = status;
        entry.is_req = true;
        entry.since = 0;
        hear(acl, key, status);
    }

    void answer()
    {
        const acl_key key = any_acl();
        const int status = up_to(4) == 0 ? 5 : 0;
        auto acl = acls.find(key);
        if (acl == acls.end())
            return;
        const uint64_t sn = up_to(6);
        const apply_key apply = any_apply();
        const uint64_t older = up_to(5) == 0;
        if (auto ace = acl->second.aces.find(sn); ace != acl->second.aces.end()) {
            const uint64_t uuid = ace->second.uuid - older;
            judge(key, sn, ace->second, status, uuid);
            answer_ace(key.first, key.second, sn, status, uuid);
        }
        if (auto at = acl->second.applies.find(apply); at != acl->second.applies.end()) {
            const uint64_t uuid = at->second.uuid - older;
            judge(key, apply, at->second, status, uuid);
            answer_apply(key.first, key.second, apply.apply_type, apply.phyid, apply.pri, status, uuid);
        }
    }

    template <class Key> void age(const acl_key &acl, const Key &key, entry_model &entry, bool forced)
    {
        if (entry.since == 0 || (now() - entry.since < 180'000'000 && !(forced && entry.count >= live())))
            return;
        entry.since = 0;
        entry.is_req = true;
        entry.stat = entry.count >= live() ? 0 : entry.stat;
        hear(acl, key, entry.stat);
    }

    void pass(bool forced)
    {
        for (auto &[key, acl] : acls) {
            for (auto &[sn, entry] : acl.aces)
                age(key, sn, entry, forced);
            for (auto &[apply, entry] : acl.applies)
                age(key, apply, entry, forced);
        }
    }

    void let_time_pass()
    {
        fake::clock.now_us += up_to(30'000'000);
        if (up_to(3) == 0) {
            const uint32_t dev = up_to(4);
            heartbeat(dev);
            nodes[dev] = now();
        }
        const bool dropped = std::erase_if(nodes, [&](auto &node) { return now() - node.second >= 20'000'000; }) != 0;
        fp_udp_fp_service_node_expire();
        if (dropped)
            pass(true);
        fp_udp_req_check_proc(0);
        pass(false);
    }

    template <class Info> static std::tuple<uint64_t, int, int, bool, bool> state(const Info &info, const void *request)
    {
        return {info.uuid, info.stat, info.req_count, info.is_req != 0, request != nullptr};
    }
    static std::tuple<uint64_t, int, int, bool, bool> state(const entry_model &entry)
    {
        return {entry.uuid, entry.stat, entry.count, entry.is_req, entry.since != 0};
    }

    void compare()
    {
        lines heard = app.take();
        std::erase_if(heard, [](const std::string &line) { return line.compare(0, 4, "acl ") == 0; });
        for (std::string &line : heard)
            line.resize(line.rfind(' '));
        std::sort(heard.begin(), heard.end());
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(heard, std::exchange(expected, {}));

        size_t aces = 0, applies = 0, waiting = 0;
        for (const auto &[key, acl] : acls) {
            const fp_udp_acl_node *node = cached_acl(key.first, key.second);
            ASSERT_NE(node, nullptr);
            ASSERT_EQ(node->ace_count, acl.aces.size());
            ASSERT_EQ(list_length(node->ace_list), acl.aces.size());
            ASSERT_EQ(list_length(node->apply_list), acl.applies.size());
            for (const auto &[sn, entry] : acl.aces) {
                const fp_udp_ace_node *ace = cached_ace(key.first, key.second, sn);
                ASSERT_NE(ace, nullptr);
                ASSERT_EQ(state(ace->ace, ace->req), state(entry)) << name(key, sn);
                waiting += entry.since != 0;
            }
            for (const auto &[apply, entry] : acl.applies) {
                const fp_udp_apply_node *found =
                    cached_apply(key.first, key.second, apply.apply_type, apply.phyid, apply.pri);
                ASSERT_NE(found, nullptr);
                ASSERT_EQ(state(found->apply, found->req), state(entry)) << name(key, apply);
                waiting += entry.since != 0;
            }
            aces += acl.aces.size();
            applies += acl.applies.size();
        }
        ASSERT_EQ(std::tuple(fp_udp_acl_node_hash_size(), fp_udp_ace_node_hash_size(), fp_udp_apply_node_hash_size(),
                             pending(), g_fp_service.count),
                  std::tuple(acls.size(), aces, applies, waiting, live()));
    }

    std::mt19937_64 random;
    std::map<acl_key, acl_model> acls;
    std::map<uint32_t, uint64_t> nodes;
    lines expected;
};

TEST_F(model, random_operations_leave_what_the_model_holds)
{
    const char *asked = getenv("PLX_TEST_SEED");
    const uint64_t seed = asked ? strtoull(asked, nullptr, 10) : std::random_device{}();
    SCOPED_TRACE("PLX_TEST_SEED=" + std::to_string(seed));
    random.seed(seed);
    for (int step = 0; step < 20'000; step++) {
        fake::clock.now_us++;
        switch (up_to(12)) {
        case 0:
        case 1:
            set_an_acl();
            break;
        case 2:
        case 3:
        case 4:
            set_an_ace();
            break;
        case 5:
        case 6:
            set_an_apply();
            break;
        case 7:
            remove();
            break;
        case 8:
            let_time_pass();
            break;
        default:
            answer();
        }
        fake::store.script.clear();
        fake::store.take();
        fake::log.take();
        ASSERT_NO_FATAL_FAILURE(compare()) << "step " << step;
    }
}

} // namespace
