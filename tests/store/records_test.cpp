// Writing and reading records: what a store must give back, whichever engine keeps it.
#include "suite.hpp"

#include "store_test.pb-c.h"
#include "store_test_newer.pb-c.h"

namespace {

class records : public store_suite {};

std::string kind_name(const testing::TestParamInfo<backend_kind> &info)
{
    return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(on, records, testing::ValuesIn(backend_kinds()), kind_name);

struct result_free {
    void operator()(tq_mom_hash_res *result) const { tq_mom_hash_res_free(result); }
};
using result_ptr = std::unique_ptr<tq_mom_hash_res, result_free>;

result_ptr read(tq_context *context, const ProtobufCMessage *record, uint32_t db = 8)
{
    return result_ptr(tq_mom_hgetall_sync(context, db, record));
}

template <typename Record> const Record *as(const result_ptr &result)
{
    return result == nullptr ? nullptr : reinterpret_cast<const Record *>(result->record);
}

std::string bytes(const ProtobufCBinaryData &data)
{
    return {reinterpret_cast<const char *>(data.data), data.len};
}

/// A sample of either version, with its key.
template <typename Sample, typename Key> struct sample_of {
    sample_of(void (*init)(Sample *), void (*key_init)(Key *), std::string of, int32_t level) : name(std::move(of))
    {
        key_init(&key);
        key.name = name.data();
        key.level = level;
        init(&record);
        record.index = &key;
    }
    sample_of(const sample_of &) = delete;
    sample_of &operator=(const sample_of &) = delete;
    operator const ProtobufCMessage *() const { return &record.base; }
    std::string name;
    Key key;
    Sample record;
};
struct older_sample : sample_of<Older__Sample, Older__SampleKey> {
    older_sample(std::string of, int32_t level)
        : sample_of(older__sample__init, older__sample_key__init, std::move(of), level)
    {
    }
};
struct newer_sample : sample_of<Newer__Sample, Newer__SampleKey> {
    newer_sample(std::string of, int32_t level)
        : sample_of(newer__sample__init, newer__sample_key__init, std::move(of), level)
    {
    }
};

TEST_P(records, a_record_reads_back_as_it_was_written)
{
    auto *context = open();
    ace_record ace("security_app", 10, 1ull << 63, 77);
    ace.set_value(std::string("\0\x01,%\xff\r\n", 7));
    ace.record.c_status = -5;
    ace.record.default_ace = 1;
    ace.record.ace_pri = UINT64_MAX;
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    const auto found = read(context, ace);
    const auto *record = as<SPolicy__Ace>(found);
    ASSERT_NE(nullptr, record);
    EXPECT_STREQ("security_app", record->index->t_app_type);
    EXPECT_EQ(10u, record->index->acl_id);
    EXPECT_EQ(1ull << 63, record->index->sn);
    EXPECT_EQ(ace.value, bytes(record->value));
    EXPECT_EQ(-5, record->c_status);
    EXPECT_EQ(77u, record->req_uuid);
    EXPECT_TRUE(record->default_ace);
    EXPECT_EQ(UINT64_MAX, record->ace_pri);
    EXPECT_EQ(0u, record->acl_cls);
}

TEST_P(records, what_is_not_there_is_read_without_a_record)
{
    auto *context = open();
    const auto found = read(context, ace_record("a", 1, 1));
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(TQ_MOM_OK, found->status);
    EXPECT_EQ(nullptr, found->record);
}

TEST_P(records, listed_fields_are_set_and_others_kept)
{
    auto *context = open();
    ace_record ace("a", 1, 1, 5);
    ace.record.ace_pri = 9;
    ace.record.acl_cls = 3;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, ace));
    ace.record.ace_pri = 10;
    ace.record.acl_cls = 200;
    constexpr uint32_t priority[] = {11};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, ace, priority, 1));
    const auto found = read(context, ace);
    ASSERT_NE(nullptr, found->record);
    EXPECT_EQ(10u, as<SPolicy__Ace>(found)->ace_pri);
    EXPECT_EQ(3u, as<SPolicy__Ace>(found)->acl_cls);
    EXPECT_EQ(5u, as<SPolicy__Ace>(found)->req_uuid);
}

TEST_P(records, a_listed_field_with_its_default_value_replaces_the_old_value)
{
    auto *context = open();
    ace_record ace("a", 1, 1, 5);
    ace.set_value("old");
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    ace.set_value("");
    ace.record.req_uuid = 0;
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    const auto found = read(context, ace);
    ASSERT_NE(nullptr, found->record);
    EXPECT_EQ(0u, as<SPolicy__Ace>(found)->req_uuid);
    EXPECT_EQ("", bytes(as<SPolicy__Ace>(found)->value));
}

TEST_P(records, a_whole_write_replaces_the_record)
{
    auto *context = open();
    ace_record ace("a", 1, 1, 5);
    ace.record.acl_cls = 3;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, ace));
    ace.record.req_uuid = 0;
    ace.record.acl_cls = 0;
    ace.record.ace_pri = 1;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, ace));
    const auto found = read(context, ace);
    ASSERT_NE(nullptr, found->record);
    EXPECT_EQ(0u, as<SPolicy__Ace>(found)->req_uuid);
    EXPECT_EQ(0u, as<SPolicy__Ace>(found)->acl_cls);
    EXPECT_EQ(1u, as<SPolicy__Ace>(found)->ace_pri);
}

TEST_P(records, a_record_without_any_value_exists)
{
    auto *context = open();
    SPolicy__ServiceNodeIndex key = S_POLICY__SERVICE_NODE_INDEX__INIT;
    SPolicy__ServiceNode node = S_POLICY__SERVICE_NODE__INIT;
    node.index = &key;
    key.slot = 3;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, &node.base));
    const auto found = read(context, &node.base);
    ASSERT_NE(nullptr, found->record);
    EXPECT_EQ(3u, as<SPolicy__ServiceNode>(found)->index->slot);
    key.slot = 4;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, &node.base, nullptr, 0));
    EXPECT_EQ(2u, scan(context, &node.base, 0).size());
}

TEST_P(records, a_table_without_key_holds_one_record)
{
    auto *context = open();
    SPolicy__SviRouter router = S_POLICY__SVI_ROUTER__INIT;
    router.c_status = 1;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, &router.base));
    router.c_status = 2;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, &router.base));
    EXPECT_EQ(1u, scan(context, &router.base, 0).size());
    EXPECT_EQ(2, as<SPolicy__SviRouter>(read(context, &router.base))->c_status);
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_scan_sync(context, 8, &router.base, 1, hearing::callback, nullptr));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, &router.base));
    EXPECT_EQ(nullptr, read(context, &router.base)->record);
}

TEST_P(records, a_deleted_record_is_gone_and_another_stays)
{
    auto *context = open();
    write_ace(context, 8, ace_record("a", 1, 1, 5));
    write_ace(context, 8, ace_record("a", 1, 2, 6));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, ace_record("a", 1, 1)));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, ace_record("a", 1, 1)));
    EXPECT_EQ(std::vector<std::string>{"4 a/1/2=6"}, scan(context, ace_record("", 0, 0), 0));
}

TEST_P(records, a_key_left_unset_is_a_record_of_its_own)
{
    auto *context = open();
    SPolicy__Ace bare = S_POLICY__ACE__INIT;
    bare.req_uuid = 1;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, &bare.base));
    ace_record null_text("", 0, 0);
    null_text.key.t_app_type = nullptr;
    EXPECT_EQ(1u, as<SPolicy__Ace>(read(context, null_text))->req_uuid);
    EXPECT_EQ(nullptr, read(context, ace_record("a", 0, 0))->record);
}

TEST_P(records, databases_and_tables_are_apart)
{
    auto *context = open();
    write_ace(context, 8, ace_record("a", 1, 1, 5));
    EXPECT_EQ(nullptr, read(context, ace_record("a", 1, 1), 9)->record);
    EXPECT_EQ(nullptr, read(context, psta_record("a", 1, 1), 8)->record);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 0, ace_record("a", 1, 1)));
    EXPECT_NE(nullptr, read(context, ace_record("a", 1, 1), 8)->record);
}

TEST_P(records, leading_key_fields_select)
{
    auto *context = open();
    const std::string names[] = {
        "a", "a,", "a,b1", "ab", "", "%2C", "a%", "a b", "\n", "\xff\xfe", std::string(300, 'x')};
    for (const auto &name : names)
        for (const uint32_t acl : {1u, 10u, 12u})
            for (const uint64_t sn : {uint64_t{1}, uint64_t{10}, UINT64_MAX})
                ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record(name, acl, sn, 1)));
    for (const auto &name : names) {
        const ace_record one(name, 1, 1);
        EXPECT_EQ(9u, scan(context, one, 1).size()) << name;
        EXPECT_EQ(3u, scan(context, one, 2).size()) << name;
        EXPECT_EQ(std::vector<std::string>{"4 " + name + "/1/1=1"}, scan(context, one, 3));
    }
    EXPECT_EQ(9 * std::size(names), scan(context, ace_record("", 0, 0), 0).size());
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_scan_sync(context, 8, ace_record("", 0, 0), 4, hearing::callback, nullptr));
}

TEST_P(records, long_and_binary_names_do_no_harm)
{
    auto *context = open();
    std::string name(100'000, 'n');
    for (size_t i = 0; i < name.size(); i += 3)
        name[i] = static_cast<char>(1 + i % 255);
    ace_record ace(name, 1, 1, 5);
    ace.set_value(std::string(1'000'000, '\0'));
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    const auto found = read(context, ace);
    ASSERT_NE(nullptr, found->record);
    EXPECT_EQ(name, as<SPolicy__Ace>(found)->index->t_app_type);
    EXPECT_EQ(ace.value, bytes(as<SPolicy__Ace>(found)->value));
    EXPECT_EQ(1u, scan(context, ace, 1).size());
}

TEST_P(records, every_kind_of_field_survives)
{
    auto *context = open();
    newer_sample sample("s", -2147483647 - 1);
    uint32_t ports[] = {0, 80, 4294967295u};
    char *texts[] = {const_cast<char *>(""), const_cast<char *>("two")};
    Newer__Point near = NEWER__POINT__INIT;
    Newer__Point far = NEWER__POINT__INIT;
    far.x = -1;
    far.y = 2147483647;
    Newer__Point *points[] = {&near, &far};
    char host[] = "h";
    auto &record = sample.record;
    record.n_ports = std::size(ports), record.ports = ports;
    record.n_names = std::size(texts), record.names = texts;
    record.n_points = std::size(points), record.points = points;
    record.ratio = -0.5;
    record.mask = 0xdeadbeef;
    record.offset = INT64_MIN;
    record.target_case = NEWER__SAMPLE__TARGET_HOST;
    record.host = host;
    constexpr uint32_t fields[] = {6, 7, 8, 9, 10, 11, 12, 13, 14};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, sample, fields, std::size(fields)));
    const auto found = read(context, sample);
    ASSERT_NE(nullptr, found->record);
    EXPECT_EQ(-2147483647 - 1, as<Newer__Sample>(found)->index->level);
    std::string written(newer__sample__get_packed_size(&record), '\0');
    std::string held(newer__sample__get_packed_size(as<Newer__Sample>(found)), '\0');
    newer__sample__pack(&record, reinterpret_cast<uint8_t *>(written.data()));
    newer__sample__pack(as<Newer__Sample>(found), reinterpret_cast<uint8_t *>(held.data()));
    EXPECT_EQ(written, held);
}

TEST_P(records, fields_that_a_reader_does_not_know_are_kept)
{
    auto *context = open();
    newer_sample full("s", 1);
    full.record.req_uuid = 1;
    full.record.mask = 42;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, full));
    older_sample part("s", 1);
    part.record.req_uuid = 2;
    constexpr uint32_t request[] = {6};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, part, request, 1));
    const auto merged = read(context, full);
    EXPECT_EQ(2u, as<Newer__Sample>(merged)->req_uuid);
    EXPECT_EQ(42u, as<Newer__Sample>(merged)->mask);

    const auto seen_by_old = read(context, part);
    EXPECT_EQ(1u, seen_by_old->record->n_unknown_fields);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, seen_by_old->record));
    EXPECT_EQ(42u, as<Newer__Sample>(read(context, full))->mask);
}

TEST_P(records, numbers_in_keys_keep_their_order_and_sign)
{
    auto *context = open();
    for (const int32_t level : {0, 7, -7, 10, -10, 2147483647, -2147483647 - 1})
        ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, older_sample("s", level)));
    std::vector<int32_t> levels;
    const auto keep = [](void *, const tq_mom_notification *told, void *arg) {
        const auto *sample = reinterpret_cast<const Older__Sample *>(told->record);
        static_cast<std::vector<int32_t> *>(arg)->push_back(sample->index->level);
        return 0;
    };
    ASSERT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, older_sample("s", 0), 1, keep, &levels));
    EXPECT_EQ((std::vector<int32_t>{-2147483647 - 1, -10, -7, 0, 7, 10, 2147483647}), levels);
}

TEST_P(records, arguments_that_make_no_sense_are_refused)
{
    auto *context = open();
    const ace_record ace("a", 1, 1);
    const uint32_t index[] = {5};
    const uint32_t unknown[] = {6, 99};
    SPolicy__Ace blank{};
    Newer__UnfitKey real = NEWER__UNFIT_KEY__INIT;
    Newer__Unfit unfit = NEWER__UNFIT__INIT;
    unfit.index = &real;
    SPolicy__Ace crossed = S_POLICY__ACE__INIT;
    crossed.index = reinterpret_cast<SPolicy__AceKey *>(&real);
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(nullptr, 8, ace));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(context, 8, nullptr));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(context, 8, &blank.base));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(context, 8, &unfit.base));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(context, 8, &crossed.base));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_hmset_sync(context, 8, ace, index, 1));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_hmset_sync(context, 8, ace, unknown, 2));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_hmset_sync(context, 8, ace, nullptr, 1));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_scan_sync(context, 8, ace, 0, nullptr, nullptr));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_subscribe(context, 8, ace, 4, hearing::callback, nullptr));
    EXPECT_EQ(nullptr, tq_mom_hgetall_sync(context, 8, nullptr));
    tq_mom_hash_res_free(nullptr);
    EXPECT_EQ(0u, scan(context, ace, 0).size());
}

TEST_P(records, a_scan_goes_on_while_its_callback_writes_and_deletes)
{
    auto *context = open();
    for (uint64_t sn = 1; sn <= 3000; ++sn)
        ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, sn, sn)));
    hearing found;
    found.also = [&](const tq_mom_notification &told) {
        tq_mom_del_sync(context, 8, told.record);
        write_ace(context, 8, ace_record("b", 1, found.lines.size()));
    };
    ASSERT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, ace_record("a", 0, 0), 1, hearing::callback, &found));
    EXPECT_EQ(3000u, found.lines.size());
    EXPECT_EQ(0u, scan(context, ace_record("a", 0, 0), 1).size());
    EXPECT_EQ(3000u, scan(context, ace_record("b", 0, 0), 1).size());
}

TEST_P(records, a_batch_is_in_the_store_at_its_end_and_before_any_read)
{
    auto *context = open();
    ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(context));
    for (uint64_t sn = 1; sn <= 1000; ++sn) {
        ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, sn, sn)));
        ASSERT_EQ(TQ_MOM_OK, write_psta(context, 8, psta_record("a", 1, sn, sn)));
    }
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, psta_record("a", 1, 7)));
    EXPECT_EQ(nullptr, read(context, psta_record("a", 1, 7))->record);
    EXPECT_NE(nullptr, read(context, psta_record("a", 1, 8))->record);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, psta_record("a", 1, 8)));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(context, nullptr, 0));
    EXPECT_EQ(1000u, scan(context, ace_record("a", 0, 0), 1).size());
    EXPECT_EQ(998u, scan(context, psta_record("a", 0, 0), 1).size());
    EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(context, nullptr, 0));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_batch_begin(nullptr));
}

} // namespace
