// Awkward moments: callbacks that write and free, memory that ends, links in the way, nulls; and a platform that is not
// ours. In this program the doubles of the functions below have other names (CMakeLists.txt), and what a foreign
// platform may do differently stands in front of them.
#include "operations.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fake::format;

struct {
    bool clock_works = true;
    bool keeps_handles = false;                    // of timers that have fired
    std::function<void(ProtobufCMessage &)> reads; // changes a record that is read
    ProtobufCMessage *read = nullptr;              // the record, and the changed one that is handed out for it
    std::vector<char> handed_out;
    int nothing_freed = 0;
} foreign;

} // namespace

extern "C" {

int double_monotime(struct timeval *now);
int double_insert_timer(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                        const struct timeval *interval, const char *name);
tq_mom_hash_res *double_hgetall(void *handle, uint32_t db, const ProtobufCMessage *record);
void double_res_free(tq_mom_hash_res *res);

int tq_monotime(struct timeval *now)
{
    double_monotime(now);
    now->tv_sec = foreign.clock_works ? now->tv_sec : 0x77777777;
    return foreign.clock_works ? 0 : 5;
}

int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const struct timeval *interval, const char *name)
{
    if (!foreign.keeps_handles)
        return double_insert_timer(master, handle, func, arg, interval, name);
    if (*handle)
        return EEXIST;
    const int result = double_insert_timer(master, nullptr, func, arg, interval, name);
    *handle = fake::clock.timers.back().thread.get();
    return result;
}

tq_mom_hash_res *tq_mom_hgetall_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    tq_mom_hash_res *res = double_hgetall(handle, db, record);
    if (!foreign.reads || !res || !res->record)
        return res;
    foreign.read = res->record;
    const char *bytes = reinterpret_cast<const char *>(foreign.read);
    foreign.handed_out.assign(bytes, bytes + record->descriptor->sizeof_message);
    res->record = reinterpret_cast<ProtobufCMessage *>(foreign.handed_out.data());
    foreign.reads(*res->record);
    return res;
}

void tq_mom_hash_res_free(tq_mom_hash_res *res)
{
    foreign.nothing_freed += !res;
    if (res && foreign.read)
        res->record = std::exchange(foreign.read, nullptr);
    double_res_free(res);
}

} // extern "C"

namespace {

class awkward : public operations_case {
  protected:
    owned_ace get_ace(const std::string &type, uint32_t id, uint64_t sn)
    {
        const fp_udp_acl_key key = make_key(type, id);
        return {mgr->get_ace(&context, &key, sn), mgr->free_ace};
    }
    // Three requests that wait: entries 1 and 2 of an ACL, and an apply of it.
    void write_three()
    {
        for (uint64_t sn = 1; sn <= 2; sn++)
            set_ace("security_app", 4, sn);
        set_apply("security_app", 4, "my_app", 7);
    }
    // What an ageing pass tells.
    size_t told(int32_t force = 0)
    {
        app.take();
        fp_udp_req_check_proc(force);
        return app.take().size();
    }
};

// The first outcome's callback sets the others again, which the pass has yet to come to, and its own.
TEST_F(awkward, what_a_callback_writes_is_not_the_business_of_the_pass_that_called_it)
{
    start();
    struct {
        const char *what;
        int32_t force;
        int64_t age_us; // of the requests when the pass begins
        int32_t nodes;  // alive then
        bool nested;    // the callback runs a pass of its own before its writes
    } const rows[] = {
        {"in a timer's pass", 0, 180'000'000, 1, false}, {"in a forced pass", 1, 180'000'000, 1, false},
        {"with nobody left to answer", 1, 1, 0, false},  {"behind a pass within", 1, 1, 0, true},
        {"a clock that stepped back", 0, -1, 1, false},
    };
    for (const auto &row : rows) {
        set_acl("security_app", 4);
        write_three();
        g_fp_service.count = row.nodes;
        fake::clock.now_us += static_cast<uint64_t>(row.age_us);
        int calls = 0;
        app.on_event = [&](const std::string &) {
            if (calls++ > 0)
                return;
            fake::clock.now_us += 5;
            if (row.nested)
                fp_udp_req_check_proc(0);
            write_three();
        };
        EXPECT_EQ(told(row.force), 1U) << row.what;
        g_fp_service.count = 1;
        fake::clock.now_us += 179'999'999;
        EXPECT_EQ(told(), 0U) << row.what;
        fake::clock.now_us += 1;
        EXPECT_EQ(told(), 3U) << row.what;
        g_fp_service.count = 0;
        EXPECT_EQ(broken(), "") << row.what;
        app.on_event = nullptr;
        del_acl("security_app", 4);
    }
}

// Each time from tables that have yet to grow.
TEST_F(awkward, a_node_that_its_table_has_no_room_for_is_refused_and_nothing_is_left)
{
    start();
    const fp_udp_acl_info acl = make_info("my_app", 1), other = make_info("my_app", 2);
    const fp_udp_ace_info ace = make_ace_info(7);
    const fp_udp_apply_info apply = make_apply_info("my_app", 7);
    fp_udp_ace_node *entry;
    fp_udp_apply_node *binding;
    const std::string no_acl = "E malloc for acl node fail.", no_acl_room = "E insert acl node fail.",
                      no_room = "E insert apply node fail";
    const std::pair<std::function<int32_t()>, lines> rows[] = {
        {[&] { return fp_udp_acldb_add_acl(&other); }, {no_acl, no_acl_room, no_acl_room}},
        {[&] { return fp_udp_acldb_add_ace(&acl, &ace, &entry); },
         {"E malloc for ace node fail.", "E insert ace node fail", "E insert ace node fail"}},
        {[&] { return fp_udp_acldb_add_apply(&other, &apply, &binding); },
         {no_acl, no_acl_room, no_acl_room, no_acl, no_room, no_room}},
    };
    for (const auto &[add, messages] : rows)
        for (size_t n = 0; n < messages.size(); n++)
            EXPECT_EQ(in_child([&, &add = add] {
                          const bool needs_acl = messages[n].find("ace") != std::string::npos;
                          if (needs_acl)
                              fp_udp_acldb_add_acl(&acl);
                          int32_t result;
                          {
                              fake::failing_allocation fail(static_cast<int>(n) + 1);
                              result = add();
                          }
                          const uint32_t left = fp_udp_acl_node_hash_size() + fp_udp_ace_node_hash_size() +
                                                fp_udp_apply_node_hash_size() - needs_acl;
                          return format("%d %u ", result, left) + fake::log.take("E").at(0) + broken() +
                                 format(" %d", add());
                      }),
                      "-2 0 " + messages[n] + " 0");
}

// A copy of a descriptor, as a platform carries that was built on its own from the same schema.
struct foreign_descriptor {
    explicit foreign_descriptor(const ProtobufCMessageDescriptor &own)
        : message(own), fields(own.fields, own.fields + own.n_fields)
    {
        message.name = name.assign(own.name).c_str();
        message.fields = fields.data();
        for (ProtobufCFieldDescriptor &field : fields)
            if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
                key = std::make_unique<foreign_descriptor>(
                    *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
                field.descriptor = &key->message;
            }
    }
    std::string name;
    ProtobufCMessageDescriptor message;
    std::vector<ProtobufCFieldDescriptor> fields;
    std::unique_ptr<foreign_descriptor> key;
};

TEST_F(awkward, a_record_is_taken_by_its_layout_whoever_described_it)
{
    start();
    struct {
        const char *what;
        void (*alter)(foreign_descriptor &);
    } const rows[] = {
        {"the same", [](foreign_descriptor &) {}},
        {"another name", [](foreign_descriptor &d) { d.message.name = "s_policy.other"; }},
        {"no name", [](foreign_descriptor &d) { d.message.name = nullptr; }},
        {"another size", [](foreign_descriptor &d) { d.message.sizeof_message += 8; }},
        {"fewer fields", [](foreign_descriptor &d) { d.message.n_fields--; }},
        {"another number", [](foreign_descriptor &d) { d.fields.back().id += 100; }},
        {"another type", [](foreign_descriptor &d) { d.fields[0].type = PROTOBUF_C_TYPE_DOUBLE; }},
        {"a list", [](foreign_descriptor &d) { d.fields[0].label = PROTOBUF_C_LABEL_REPEATED; }},
        {"another place", [](foreign_descriptor &d) { d.fields.back().offset += 4; }},
        {"another key", [](foreign_descriptor &d) { d.key->fields[0].offset += 4; }},
        {"no key", [](foreign_descriptor &d) { d.fields[0].descriptor = nullptr; }},
    };
    fake::store.put(8, *fake::record("acl", {"security_app", "1"}, {{"acl_cls", "6"}}));
    fake::store.put(8, *fake::record("ace", {"security_app", "1", "7"}));
    std::string all;
    for (const auto &row : rows) {
        set_acl("security_app", 1);
        set_ace("security_app", 1, 7);
        set_apply("security_app", 1, "security_app", 0);
        const std::map<std::string, std::string> refusal = {{"rep_uuid", std::to_string(now())}, {"p_status", "5"}};
        const struct {
            const char *table;
            int32_t event;
            fake::record record;
        } records[] = {{"acl", 4, {"acl", {"security_app", "1"}}},
                       {"ace", 4, {"ace", {"security_app", "1", "7"}}},
                       {"ace_psta", 1, {"ace_psta", {"security_app", "1", "7"}, refusal}},
                       {"apply_psta", 1, {"apply_psta", {"security_app", "1", "security_app"}, refusal}},
                       {"ace_counter", 24, {"ace_counter", {"security_app", "1", "7"}}},
                       {"service_node", 24, {"service_node", {"0", "0", "0"}}}};
        app.take();
        for (const auto &[table, event, record] : records) {
            ProtobufCMessage &message = const_cast<ProtobufCMessage &>(*record);
            foreign_descriptor described(*message.descriptor);
            row.alter(described);
            message.descriptor = &described.message;
            fake::store.deliver(table, event, &message);
        }
        std::unique_ptr<foreign_descriptor> described;
        foreign.reads = [&](ProtobufCMessage &read) {
            described = std::make_unique<foreign_descriptor>(*read.descriptor);
            row.alter(*described);
            read.descriptor = &described->message;
        };
        uint8_t cls = 0;
        mgr->get_acl_cls(&context, 1, &cls);
        lines heard = app.take();
        heard.push_back(
            format("nodes %d class %d entry %d", g_fp_service.count, cls, get_ace("security_app", 1, 7) != nullptr));
        if (all.empty())
            EXPECT_EQ(heard, (lines{"acl change security_app/1 0", "ace change security_app/1/7 0",
                                    "ace fail security_app/1/7 5 <0:32>",
                                    "apply fail security_app/1@security_app/0/0/0 5 <0:32>",
                                    "counter security_app/1/7 0 0 0 0 0 0", "nodes 1 class 6 entry 1"}));
        else
            EXPECT_EQ(heard, lines{"nodes 0 class 0 entry 0"}) << row.what;
        all = row.what;
        foreign.reads = nullptr;
        fake::clock.advance_seconds(40); // the service node leaves
    }
}

TEST_F(awkward, a_read_needs_no_key_and_gives_back_only_what_it_got)
{
    start();
    fake::store.put(5, *fake::record("acl", {"my_app", "1"}, {{"acl_cls", "6"}}));
    fake::store.put(8, *fake::record("acl", {"security_app", "1"}, {{"acl_cls", "6"}}));
    fake::store.put(8, *fake::record("ace", {"security_app", "1", "7"}));
    foreign.reads = [](ProtobufCMessage &read) {
        const auto *index = protobuf_c_message_descriptor_get_field_by_name(read.descriptor, "index");
        *reinterpret_cast<void **>(reinterpret_cast<char *>(&read) + index->offset) = nullptr;
    };
    uint8_t cls = 0;
    EXPECT_EQ(mgr->get_acl_cls(&context, 1, &cls), 0);
    EXPECT_EQ(cls, 6);
    EXPECT_NE(get_ace("security_app", 1, 7), nullptr);
    fake::store.script["get"] = {fake::store_double::no_answer, fake::store_double::no_answer};
    EXPECT_EQ(mgr->get_acl_cls(&context, 1, &cls), -11);
    EXPECT_EQ(get_ace("security_app", 1, 7), nullptr);
    EXPECT_EQ(foreign.nothing_freed, 0);
}

TEST_F(awkward, timers_go_on_where_a_fired_ones_handle_is_kept)
{
    foreign.keeps_handles = true;
    start();
    fake::clock.inserted.clear();
    fake::clock.advance_seconds(31);
    EXPECT_EQ(fake::clock.inserted.size(), 5U) << "10, 15, 20 and twice 30 seconds";
}

TEST_F(awkward, a_clock_that_cannot_be_read_judges_nothing_and_ages_nothing)
{
    start();
    set_acl("security_app", 4);
    write_three();
    fp_udp_ace_node *ace = cached_ace("security_app", 4, 1);
    uint64_t last = ace->ace.uuid;
    heartbeat(1);
    foreign.clock_works = false;
    for (int i = 0; i < 2; i++) {
        set_ace("security_app", 4, 1);
        EXPECT_EQ(ace->ace.uuid, ++last) << "each write has its own identifier";
    }
    heartbeat(2);
    fake::clock.now_us += 200'000'000;
    fp_udp_fp_service_node_expire();
    EXPECT_EQ(g_fp_service.count, 2);
    EXPECT_EQ(told(), 0U);
    ace->ace.req_count = 2;
    EXPECT_EQ(told(1), 1U) << "answers count without a clock";
    set_ace("security_app", 4, 1);
    foreign.clock_works = true;
    fp_udp_fp_service_node_expire(); // node 1 leaves, and entry 2 and the apply with the forced pass
    EXPECT_EQ(g_fp_service.count, 1) << "what was heard without a clock is young";
    EXPECT_EQ(std::pair(app.take().size(), pending()), std::pair(size_t{2}, size_t{1}));
    fake::clock.now_us += 179'999'999;
    EXPECT_EQ(told(), 0U);
    fake::clock.now_us += 1;
    EXPECT_EQ(told(), 1U);
    fp_udp_fp_service_node_expire();
    EXPECT_EQ(g_fp_service.count, 0);
}

TEST_F(awkward, a_debug_command_without_its_arguments_does_nothing)
{
    start();
    fp_udp_debug_sw = 5;
    ssat_value all{};
    all.s = "all";
    const std::pair<const char *, std::vector<ssat_value>> rows[] = {
        {"fp_udp_set_sw", {}}, {"fp_udp_at_set_zlog_level", {}}, {"fp_udp_dump_acl", {}}, {"fp_udp_dump_acl", {all}}};
    for (const auto &[command, arguments] : rows)
        EXPECT_EQ(printed([&, name = command, &values = arguments] { EXPECT_EQ(fake::shell.run(name, values), -4); }),
                  "");
    for (const char *command : {"fp_udp_set_sw", "fp_udp_at_set_zlog_level", "fp_udp_dump_acl"})
        for (const fake::shell_command &known : fake::shell.commands)
            EXPECT_TRUE(known.name != command || known.handler(2, nullptr) == -4) << command;
    EXPECT_EQ(std::pair(fp_udp_debug_sw, g_policy_plx_zlog_level), std::pair(5U, 5U));
}

fp_udp_mgr *operations;
fp_udp_ace *doomed;

TEST_F(awkward, a_callback_may_free_what_was_passed)
{
    fp_udp_acl_handler handler = application::handler();
    handler.ace_fail_cb = [](void *, const fp_udp_acl_info *, uint64_t, int32_t, const uint8_t *) {
        operations->free_ace(doomed);
        return 3;
    };
    start(handler);
    operations = mgr;
    doomed = make_ace(mgr, 7).release();
    const fp_udp_acl_key key = make_key("my_app", 1);
    EXPECT_EQ(mgr->set_ace(&context, &key, doomed), 3) << "its ACL is not known";
    EXPECT_EQ(fake::log.take("E").back(), "E plx reply set ace fail, app_type : my_app, acl_id : 1, sn : 7\n");
}

// The failed write deletes the node that the descriptor lies in; what takes its place in memory is not what is told.
TEST_F(awkward, a_descriptor_within_a_node_may_be_passed)
{
    start();
    set_acl("my_app", 1);
    set_apply("my_app", 1, "my_app", 7);
    fake::store.failing = "hmset";
    std::vector<std::unique_ptr<std::string>> in_its_place;
    app.on_event = [&](const std::string &) {
        for (int i = 0; i < 8; i++)
            in_its_place.push_back(std::make_unique<std::string>(sizeof(fp_udp_apply_node) - 1, 'x'));
    };
    app.take();
    mgr->set_apply(&context, &cached_apply("my_app", 1, "my_app", 7)->acl, 0, make_apply(mgr, "my_app", 7).get());
    EXPECT_EQ(app.take(), lines{"apply fail my_app/1@my_app/7/0/0 9 <0:32>"});
}

// Names of the functions in which messages arise, as log readers know them.
TEST_F(awkward, a_message_names_the_operation_that_reports)
{
    start();
    set_acl("security_app", 4);
    write_three();
    const fake::led_elsewhere tmp("/tmp", "/nowhere");
    const std::pair<const char *, std::function<void()>> rows[] = {
        {"fp_udp_fp_service_node_expire",
         [this] {
             heartbeat(1);
             fake::clock.now_us += 20'000'000;
             fp_udp_fp_service_node_expire();
         }},
        {"fp_udp_req_check_proc",
         [this] {
             write_three();
             fake::clock.now_us += 180'000'000;
             fp_udp_req_check_proc(0);
         }},
        {"fp_udp_ace_req_stat_proc", [this] { fp_udp_ace_req_stat_proc(cached_ace("security_app", 4, 1), 5, 0); }},
        {"fp_udp_apply_req_stat_proc",
         [this] { fp_udp_apply_req_stat_proc(cached_apply("security_app", 4, "my_app", 7), 5, 0); }},
        {"fp_udp_acldb_add_apply",
         [] {
             const fp_udp_acl_info acl = make_info("security_app", 4);
             const fp_udp_apply_info apply = make_apply_info("my_app", 8);
             fp_udp_apply_node *node;
             fake::failing_allocation fail(1);
             fp_udp_acldb_add_apply(&acl, &apply, &node);
         }},
        {"fp_udp_copy_ace",
         [this] {
             const owned_ace ace = make_ace(mgr, 1);
             for (auto [whole, n] : {std::pair{1, 1}, {1, 2}, {0, 3}}) {
                 fake::failing_allocation fail(n);
                 EXPECT_EQ(mgr->copy_ace(ace.get(), whole, nullptr), nullptr);
             }
         }},
        {"fp_udp_log_op_ace",
         [] {
             fp_udp_debug_sw = FP_UDP_DEBUG_OP_LOG;
             fp_udp_log_op_ace(nullptr, nullptr, "my_app", nullptr, nullptr, FP_UDP_OP_EXPIRE);
             fp_udp_debug_sw = 0;
         }},
        {"fp_udp_set_sw", [] { fake::shell.run("fp_udp_set_sw", {}); }},
    };
    for (const auto &[function, say] : rows) {
        fake::log.take();
        say();
        std::set<std::string> names;
        for (const fake::log_line &line : fake::log.kept)
            if (line.level == TQ_ZLOG_ERROR)
                names.insert(line.func);
        EXPECT_TRUE(names.count(function)) << function << ": " << testing::PrintToString(names);
        for (const std::string &name : names)
            EXPECT_EQ(name.compare(0, 3, "fp_"), 0) << name;
    }
}

// A message on the console is one call: on a stream without a buffer, one write.
TEST_F(awkward, a_message_reaches_the_console_whole)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);
    fp_udp_debug_sw = FP_UDP_DEBUG_ERROR;
    fp_udp_register_app_type(nullptr);
    dup2(before, STDOUT_FILENO);
    char text[200];
    const std::string heard(text, static_cast<size_t>(std::max<ssize_t>(0, read(ends[0], text, sizeof text))));
    EXPECT_EQ(heard.find("\n [Error] fp_udp_register_app_type["), 0U);
    EXPECT_NE(heard.find("]:invalid app_type.\n"), std::string::npos) << heard;
    EXPECT_EQ(recv(ends[0], text, sizeof text, MSG_DONTWAIT), -1);
    for (const int end : {ends[0], ends[1], before})
        close(end);
}

// With /tmp led to a directory of the case's own.
class awkward_log : public awkward {
  protected:
    awkward_log()
    {
        std::filesystem::create_directories(directory);
        start();
        fp_udp_debug_sw = FP_UDP_DEBUG_OP_LOG;
    }
    ~awkward_log() override { std::filesystem::remove_all(root); }
    static lines record()
    {
        fp_udp_log_op_acl(nullptr, "my_app", nullptr, FP_UDP_OP_EXPIRE);
        return fake::log.take("E");
    }

    const std::string root = "/var/tmp/" + process + "." + std::to_string(getpid()); // not below /tmp
    const std::string directory = root + "/zlog/udp_fp_log", file = directory + "/" + process + ".log";
    const fake::led_elsewhere tmp{"/tmp", root};
};

TEST_F(awkward_log, behind_a_link_nothing_is_kept_and_the_start_says_so)
{
    for (const std::string &path : {root + "/zlog", directory}) {
        std::filesystem::rename(path, root + "/aside");
        std::filesystem::create_symlink(root + "/aside", path);
        EXPECT_EQ(fp_udp_op_log_init(), -1);
        EXPECT_EQ(fake::log.take("E"),
                  lines{"E a link is in the way of /tmp/zlog/udp_fp_log, no operation is logged.\n"});
        EXPECT_EQ(record(), lines{}) << "said once";
        std::filesystem::remove(path);
        std::filesystem::rename(root + "/aside", path);
        EXPECT_TRUE(std::filesystem::is_empty(directory));
    }
    EXPECT_EQ(fp_udp_op_log_init(), 0);
    EXPECT_EQ(record(), lines{});
    EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(awkward_log, a_record_takes_few_calls)
{
    record();
    fake::failing_file_call count(0, 0);
    record();
    EXPECT_EQ(fake::failing_file_call::seen(), 8);
}

TEST_F(awkward_log, the_files_are_made_together_or_not_at_all)
{
    const std::string second = directory + "/" + process + "_1.log";
    for (const auto &[in_the_way, other] : {std::pair{file, second}, {second, file}}) {
        std::filesystem::create_directory(in_the_way);
        for (int again = 0; again < 2; again++)
            EXPECT_EQ(record().size(), 1U);
        EXPECT_FALSE(std::filesystem::exists(other));
        std::filesystem::remove(in_the_way);
    }
    std::ofstream(file) << "earlier";
    std::filesystem::create_directory(second);
    record();
    EXPECT_EQ(std::filesystem::file_size(file), 7U) << "another run's records stay, without a new header each time";
}

TEST_F(awkward, a_null_result_pointer_is_refused_and_a_null_type_is_empty)
{
    start();
    set_acl("security_app", 1);
    const fp_udp_acl_info acl = make_info("security_app", 1), other = make_info("security_app", 2);
    const fp_udp_ace_info ace = make_ace_info(7);
    const fp_udp_apply_info apply = make_apply_info("my_app", 7);
    const fp_udp_acl_key key = make_key("security_app", 1);
    uint64_t *numbers;
    uint32_t count;
    EXPECT_EQ(fp_udp_acldb_get_acl(&acl, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_get_ace(&acl, &ace, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_get_apply(&acl, &apply, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_add_ace(&acl, &ace, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_add_apply(&other, &apply, nullptr), -4);
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 1U);
    EXPECT_EQ(fp_udp_acl_node_hash_traverse(nullptr, nullptr), -4);
    EXPECT_EQ(fp_udp_ace_node_hash_traverse_with_index(nullptr, 0, 1, nullptr), -4);
    EXPECT_EQ(fp_udp_acl_node_traverse_op(nullptr, nullptr), 0);
    EXPECT_EQ(fp_udp_dbg_get_proc_name(nullptr), -4);
    EXPECT_EQ(mgr->get_acl_cls(&context, 1, nullptr), -4);
    EXPECT_EQ(mgr->iterator_ace(&context, &key, nullptr, &count), nullptr);
    EXPECT_EQ(mgr->iterator_ace(&context, &key, &numbers, nullptr), nullptr);
    const owned_ace object = make_ace(mgr, 1);
    fp_udp_attr attr{};
    object->tlv->construct(&attr, "vid", FP_UDP_ATTR_FIELD, attr.value, 2);
    object->tlv->push(nullptr, attr);
    EXPECT_EQ(object->tlv->len, 0);
    fake::log.take();
    EXPECT_EQ(mgr->enable_app_commit(&context, nullptr, 1) + mgr->disable_app_commit(&context, nullptr) +
                  mgr->publish_app_commit(&context, nullptr),
              0);
    EXPECT_EQ(fake::log.take(), (lines{"D app commmit enable, app_type: .\n", "D app commmit disable, app_type: .\n",
                                       "D app commmit, app_type: .\n"}));
}

} // namespace
