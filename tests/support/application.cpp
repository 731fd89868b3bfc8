// The recording callbacks, the builders, and the fixture.
#include "application.h"
#include "inspection.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

application app;
static tq_thread_master master;
application_context context{&app, &master};

using fake::format;
using fake::hex;

// What a callback was told, which must stay as it is until the callback returns, whatever it does.
template <class Told> static int32_t heard(void *ctx, Told told)
{
    const std::string event = told() + (ctx == &context ? "" : " WRONG CONTEXT");
    app.events.push_back(event);
    if (app.on_event) {
        app.on_event(event);
        EXPECT_EQ(event.find(told()), 0U);
    }
    return app.result;
}

static std::string of(const fp_udp_acl_info *acl)
{
    return format("%s/%u", acl->app_type, acl->acl_id);
}

static std::string entry(const fp_udp_acl_info *acl, uint64_t sn)
{
    return of(acl) + format("/%llx", static_cast<unsigned long long>(sn));
}

static std::string binding(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply)
{
    return of(acl) + format("@%s/%x/%u/%u", apply->apply_type, apply->phyid, apply->pri, apply->dir);
}

static std::string priv32(const uint8_t *priv)
{
    return " " + hex(priv, FP_UDP_PRIV_SIZE);
}

static std::string priv8(const uint8_t *priv)
{
    return " " + hex(priv, FP_UDP_PORT_PRIV_SIZE);
}

fp_udp_acl_handler application::handler()
{
    fp_udp_acl_handler h{};
    h.set_acl_ok_cb = [](void *c, const fp_udp_acl *acl, const uint8_t *priv) {
        return heard(c, [&] {
            return format("acl ok %s/%u/%u", acl->app_type, acl->acl_id, acl->acl_cls) + priv32(priv) +
                   (priv == acl->priv ? "" : " WRONG PRIV");
        });
    };
    h.set_acl_fail_cb = [](void *c, const fp_udp_acl *acl, int32_t code, const uint8_t *priv) {
        return heard(c, [&] { return format("acl fail %s/%u %d", acl->app_type, acl->acl_id, code) + priv32(priv); });
    };
    h.ace_reply_ok_cb = [](void *c, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *priv) {
        return heard(c, [&] { return "ace ok " + entry(acl, sn) + priv32(priv); });
    };
    h.ace_fail_cb = [](void *c, const fp_udp_acl_info *acl, uint64_t sn, int32_t status, const uint8_t *priv) {
        return heard(c, [&] { return "ace fail " + entry(acl, sn) + format(" %d", status) + priv32(priv); });
    };
    h.apply_reply_ok_cb = [](void *c, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, const uint8_t *priv) {
        return heard(c, [&] { return "apply ok " + binding(acl, apply) + priv32(priv); });
    };
    h.apply_fail_cb = [](void *c, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, int32_t status,
                         const uint8_t *priv) {
        return heard(c, [&] { return "apply fail " + binding(acl, apply) + format(" %d", status) + priv32(priv); });
    };
    h.reserved_6 = [] { abort(); };
    h.reserved_7 = [] { abort(); };
    h.port_disable_ok_cb = [](void *c, uint32_t phyid) {
        return heard(c, [&] { return format("port ok %x", phyid); });
    };
    h.port_disable_fail_cb = [](void *c, uint32_t phyid, int32_t code) {
        return heard(c, [&] { return format("port fail %x %d", phyid, code); });
    };
    h.ace_counter_cb = [](void *c, const fp_udp_acl_info *acl, uint64_t sn, const fp_udp_ace_counter *counter) {
        return heard(c, [&] {
            std::string text = "counter " + entry(acl, sn);
            for (size_t i = 0; i < sizeof *counter / sizeof(uint64_t); i++)
                text += " " + std::to_string(reinterpret_cast<const uint64_t *>(counter)[i]);
            return text;
        });
    };
    h.svi_router_ok_cb = [](void *c, const uint8_t *priv) { return heard(c, [&] { return "svi ok" + priv8(priv); }); };
    h.svi_router_fail_cb = [](void *c, int32_t code, const uint8_t *priv) {
        return heard(c, [&] { return format("svi fail %d", code) + priv8(priv); });
    };
    h.uplink_ok_cb = [](void *c, uint32_t phyid, uint32_t type, const uint8_t *priv) {
        return heard(c, [&] { return format("uplink ok %x %u", phyid, type) + priv8(priv); });
    };
    h.uplink_fail_cb = [](void *c, uint32_t phyid, uint32_t type, int32_t code, const uint8_t *priv) {
        return heard(c, [&] { return format("uplink fail %x %u %d", phyid, type, code) + priv8(priv); });
    };
    h.acl_change_cb = [](void *c, const fp_udp_acl_info *acl, int32_t kind) {
        return heard(c, [&] { return "acl change " + of(acl) + format(" %d", kind); });
    };
    h.ace_change_cb = [](void *c, const fp_udp_acl_info *acl, uint64_t sn, int32_t kind) {
        return heard(c, [&] { return "ace change " + entry(acl, sn) + format(" %d", kind); });
    };
    return h;
}

void put_name(char (&field)[FP_UDP_APP_TYPE_SIZE], const std::string &name)
{
    memset(field, 0, sizeof field);
    memcpy(field, name.data(), std::min(name.size(), sizeof field));
}

void put_priv(uint8_t *bytes, size_t length, uint8_t first)
{
    for (size_t i = 0; i < length; i++)
        bytes[i] = static_cast<uint8_t>(first + i);
}

template <class Named> static Named named(const std::string &type, uint32_t id)
{
    Named made{};
    put_name(made.app_type, type);
    made.acl_id = id;
    return made;
}

fp_udp_acl make_acl(const std::string &type, uint32_t id, uint8_t cls, uint8_t priv)
{
    auto acl = named<fp_udp_acl>(type, id);
    acl.acl_cls = cls;
    put_priv(acl.priv, sizeof acl.priv, priv);
    return acl;
}

fp_udp_acl_key make_key(const std::string &type, uint32_t id)
{
    return named<fp_udp_acl_key>(type, id);
}

fp_udp_acl_info make_info(const std::string &type, uint32_t id)
{
    return named<fp_udp_acl_info>(type, id);
}

fp_udp_ace_info make_ace_info(uint64_t sn)
{
    fp_udp_ace_info info{};
    info.sn = sn;
    return info;
}

fp_udp_apply_info make_apply_info(const std::string &apply_type, uint32_t phyid, uint32_t pri, uint32_t dir)
{
    fp_udp_apply_info info{};
    put_name(info.apply_type, apply_type);
    info.phyid = phyid;
    info.pri = pri;
    info.dir = dir;
    return info;
}

owned_ace make_ace(fp_udp_mgr *mgr, uint64_t sn, uint8_t priv, uint64_t pri, uint8_t default_ace)
{
    fake::failing_allocation::pause pause;
    owned_ace ace(mgr->alloc_ace(sn, default_ace), mgr->free_ace);
    put_priv(ace->priv, sizeof ace->priv, priv);
    ace->ace_pri = pri;
    return ace;
}

owned_apply make_apply(fp_udp_mgr *mgr, const std::string &apply_type, uint32_t phyid, uint32_t pri, uint32_t dir,
                       uint8_t priv)
{
    fp_udp_apply_key key{};
    put_name(key.apply_type, apply_type);
    key.phyid = phyid;
    key.priority = pri;
    key.direction = dir;
    fake::failing_allocation::pause pause;
    owned_apply apply(mgr->alloc_apply(&key), mgr->free_apply);
    put_priv(apply->priv, sizeof apply->priv, priv);
    return apply;
}

size_t list_length(const fp_udp_list &head)
{
    size_t length = 0;
    const fp_udp_list *at = &head;
    do {
        EXPECT_EQ(at->next->prev, at);
        at = at->next;
        length += at != &head;
    } while (at != &head);
    return length;
}

std::string broken()
{
    return fake::first_fault();
}

std::string in_child(const std::function<std::string()> &work, bool quiet)
{
    constexpr size_t most = 1 << 16;
    auto *told = static_cast<char *>(mmap(nullptr, most, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    fflush(nullptr);
    const bool failed_before = testing::Test::HasFailure();
    const pid_t child = fork();
    if (child == 0) {
        alarm(200);
        if (quiet && (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)))
            _exit(3);
        snprintf(told, most, "%s", work().c_str());
        fflush(nullptr);
        _exit(*told == '\0' && !failed_before && testing::Test::HasFailure() ? 4 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const std::string text = told;
    munmap(told, most);
    return !text.empty() || status == 0 ? text : format("a child ended with %#x", static_cast<unsigned>(status));
}

library_case::library_case() : process("plx" + std::to_string(getpid()))
{
    prctl(PR_SET_NAME, process.c_str());
    g_policy_plx_zlog_level = 5;
    g_policy_plx_zlog_category = &fake::log;
}

library_case::~library_case()
{
    EXPECT_TRUE(fake::store.unreleased.empty()) << "a read's result was not freed";
}

void library_case::start(const fp_udp_acl_handler &handler, const lines &types)
{
    for (const std::string &type : types)
        ASSERT_EQ(fp_udp_register_app_type(type.c_str()), 0);
    ASSERT_EQ(fp_udp_register_acl_handler(&context, 5, &handler), 0);
    mgr = fp_udp_get_mgr();
    forget_calls();
}

void library_case::forget_calls()
{
    fake::store.take();
    fake::log.take();
    app.take();
}

void library_case::forget_everything()
{
    fake::store.records.clear();
    fake::store.stale.clear();
    fake::store.marks.clear();
    std::exchange(fake::clock.inserted, {});
    std::exchange(fake::commands, {});
    forget_calls();
}

fp_udp_acl_node *library_case::cached_acl(const std::string &type, uint32_t id)
{
    fp_udp_acl_info acl = make_info(type, id);
    fp_udp_acl_node *node = nullptr;
    fp_udp_acldb_get_acl(&acl, &node);
    return node;
}

fp_udp_ace_node *library_case::cached_ace(const std::string &type, uint32_t id, uint64_t sn)
{
    fp_udp_acl_info acl = make_info(type, id);
    fp_udp_ace_info ace = make_ace_info(sn);
    fp_udp_ace_node *node = nullptr;
    fp_udp_acldb_get_ace(&acl, &ace, &node);
    return node;
}

fp_udp_apply_node *library_case::cached_apply(const std::string &type, uint32_t id, const std::string &apply_type,
                                              uint32_t phyid, uint32_t pri)
{
    fp_udp_acl_info acl = make_info(type, id);
    fp_udp_apply_info apply = make_apply_info(apply_type, phyid, pri);
    fp_udp_apply_node *node = nullptr;
    fp_udp_acldb_get_apply(&acl, &apply, &node);
    return node;
}

size_t library_case::pending()
{
    return list_length(g_req_para.pending);
}
