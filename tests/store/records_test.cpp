// Writing and reading records: what a store must give back, whichever engine keeps it.
#include "suite.hpp"

#include "store_test.pb-c.h"
#include "store_test_newer.pb-c.h"

namespace {

using older_sample = keyed<Older__Sample, Older__SampleKey, older__sample__descriptor>;
using newer_sample = keyed<Newer__Sample, Newer__SampleKey, newer__sample__descriptor>;

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

std::string packed(const ProtobufCMessage *record)
{
    if (record == nullptr)
        return "no record";
    std::string bytes(protobuf_c_message_get_packed_size(record), '\0');
    protobuf_c_message_pack(record, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

/// What is stored under the record's key, key included.
std::string stored(tq_context *context, const ProtobufCMessage *record, uint32_t db = 8)
{
    const auto found = read(context, record, db);
    EXPECT_TRUE(found != nullptr && found->status == TQ_MOM_OK);
    return packed(found == nullptr ? nullptr : found->record);
}

TEST_P(store_suite, a_record_reads_back_as_it_was_written)
{
    auto *context = open();
    ace_record ace("security_app", 10, 1ull << 63, 77);
    EXPECT_EQ("no record", stored(context, ace));
    ace.set_value(std::string("\0\x01,%\xff\r\n", 7));
    ace.record.c_status = -5;
    ace.record.default_ace = 1;
    ace.record.ace_pri = UINT64_MAX;
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    EXPECT_EQ(packed(ace), stored(context, ace));
}

TEST_P(store_suite, a_record_without_any_value_exists)
{
    auto *context = open();
    keyed<SPolicy__ServiceNode, SPolicy__ServiceNodeIndex, s_policy__service_node__descriptor> node;
    node.key.slot = 3;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, node));
    EXPECT_EQ(packed(node), stored(context, node));
    node.key.slot = 4;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, node, nullptr, 0));
    EXPECT_EQ(2u, scan(context, node).size());
}

TEST_P(store_suite, a_table_without_key_holds_one_record)
{
    auto *context = open();
    SPolicy__SviRouter router = S_POLICY__SVI_ROUTER__INIT;
    for (router.c_status = 1; router.c_status <= 2; ++router.c_status) {
        ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, &router.base));
        EXPECT_EQ(packed(&router.base), stored(context, &router.base));
        EXPECT_EQ(1u, scan(context, &router.base).size());
    }
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_scan_sync(context, 8, &router.base, 1, hearing::callback, nullptr));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(context, 8, &router.base, 0, 1000));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(context, 8, &router.base, 0, 1000));
    EXPECT_EQ("no record", stored(context, &router.base));
}

TEST_P(store_suite, a_deletion_takes_one_record_of_one_table_in_one_database)
{
    auto *context = open();
    for (const uint64_t sn : {1u, 2u})
        write_ace(context, 8, ace_record("a", 1, sn, 5));
    write_ace(context, 9, ace_record("a", 1, 1, 6));
    EXPECT_EQ("no record", stored(context, psta_record("a", 1, 1)));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 0, ace_record("a", 1, 1)));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, psta_record("a", 1, 1)));
    EXPECT_EQ(2u, scan(context, ace_record("", 0, 0)).size());
    for (int twice = 0; twice < 2; ++twice)
        ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, ace_record("a", 1, 1)));
    EXPECT_EQ(lines{"4 a/1/2=5"}, scan(context, ace_record("", 0, 0)));
    EXPECT_EQ(lines{"4 a/1/1=6"}, scan(context, ace_record("", 0, 0), 0, 9));
}

TEST_P(store_suite, a_key_left_unset_is_a_record_of_its_own)
{
    auto *context = open();
    SPolicy__Ace bare = S_POLICY__ACE__INIT;
    bare.req_uuid = 1;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, &bare.base));
    ace_record null_text("", 0, 0);
    null_text.key.t_app_type = nullptr;
    EXPECT_EQ(1u, as<SPolicy__Ace>(read(context, null_text))->req_uuid);
    EXPECT_EQ("no record", stored(context, ace_record("a", 0, 0)));
}

TEST_P(store_suite, leading_key_fields_select)
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
        EXPECT_EQ(lines{"4 " + name + "/1/1=1"}, scan(context, one, 3));
    }
    EXPECT_EQ(9 * std::size(names), scan(context, ace_record("", 0, 0)).size());
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_scan_sync(context, 8, ace_record("", 0, 0), 4, hearing::callback, nullptr));
}

TEST_P(store_suite, long_and_binary_names_do_no_harm)
{
    auto *context = open();
    std::string name(100'000, 'n');
    for (size_t i = 0; i < name.size(); i += 3)
        name[i] = static_cast<char>(1 + i % 255);
    ace_record ace(name, 1, 1, 5);
    ace.set_value(std::string(1'000'000, '\0'));
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    EXPECT_TRUE(packed(ace) == stored(context, ace));
    EXPECT_EQ(1u, scan(context, ace, 1).size());
}

TEST_P(store_suite, every_kind_of_field_survives)
{
    auto *context = open();
    newer_sample sample;
    char texts[][4] = {"", "two"};
    char *names[] = {texts[0], texts[1]};
    uint32_t ports[] = {0, 80, 4294967295u};
    Newer__Point near = NEWER__POINT__INIT;
    Newer__Point far = NEWER__POINT__INIT;
    far.x = -1;
    far.y = 2147483647;
    Newer__Point *points[] = {&near, &far};
    sample.key.name = texts[1];
    sample.key.level = -2147483647 - 1;
    auto &record = sample.record;
    record.n_ports = std::size(ports), record.ports = ports;
    record.n_names = std::size(names), record.names = names;
    record.n_points = std::size(points), record.points = points;
    record.ratio = -0.5;
    record.mask = 0xdeadbeef;
    record.offset = INT64_MIN;
    record.target_case = NEWER__SAMPLE__TARGET_HOST;
    record.host = texts[1];
    constexpr uint32_t fields[] = {6, 7, 8, 9, 10, 11, 12, 13, 14};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, sample, fields, std::size(fields)));
    EXPECT_EQ(packed(sample), stored(context, sample));
}

TEST_P(store_suite, fields_that_a_reader_does_not_know_are_kept)
{
    auto *context = open();
    newer_sample full;
    full.record.req_uuid = 1;
    full.record.mask = 42;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, full));
    older_sample part;
    part.record.req_uuid = full.record.req_uuid = 2;
    constexpr uint32_t request[] = {6};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, part, request, 1));
    EXPECT_EQ(packed(full), stored(context, full));

    const auto seen_by_old = read(context, part);
    EXPECT_EQ(1u, seen_by_old->record->n_unknown_fields);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, seen_by_old->record));
    EXPECT_EQ(packed(full), stored(context, full));
}

TEST_P(store_suite, a_field_that_appears_behind_a_writer_s_back_is_in_its_next_change)
{
    auto *context = open();
    older_sample old;
    newer_sample full;
    constexpr uint32_t fields[] = {6, 7, 8};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, old, fields, 3)) << "all that there are so far";
    full.record.mask = 42;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(open(), 8, full));
    hearing heard;
    std::string last;
    heard.also = [&](const tq_mom_notification &told) { last = packed(told.record); };
    subscribe(open(), heard, full, 0);
    full.record.req_uuid = old.record.req_uuid = 2;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, old, fields, 3));
    wait_for([&] { return last == packed(full); });
}

TEST_P(store_suite, numbers_in_keys_keep_their_order_and_sign)
{
    auto *context = open();
    older_sample sample;
    for (const int32_t level : {0, 7, -7, 10, -10, 2147483647, -2147483647 - 1}) {
        sample.key.level = level;
        ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, sample));
    }
    hearing found;
    std::vector<int32_t> levels;
    found.also = [&](const tq_mom_notification &told) {
        levels.push_back(reinterpret_cast<const Older__Sample *>(told.record)->index->level);
    };
    ASSERT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, sample, 1, hearing::callback, &found));
    EXPECT_EQ((std::vector<int32_t>{-2147483647 - 1, -10, -7, 0, 7, 10, 2147483647}), levels);
}

TEST_P(store_suite, arguments_that_make_no_sense_are_refused)
{
    auto *context = open();
    const ace_record ace("a", 1, 1);
    const uint32_t index[] = {5};
    const uint32_t unknown[] = {6, 99};
    const SPolicy__Ace blank{};
    const keyed<Newer__Unfit, Newer__UnfitKey, newer__unfit__descriptor> unfit;
    SPolicy__Ace crossed = S_POLICY__ACE__INIT;
    crossed.index = reinterpret_cast<SPolicy__AceKey *>(unfit.record.index);
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(nullptr, 8, ace));
    for (const auto *record :
         std::initializer_list<const ProtobufCMessage *>{nullptr, &blank.base, unfit, &crossed.base})
        EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(context, 8, record));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_hmset_sync(context, 8, ace, index, 1));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_hmset_sync(context, 8, ace, unknown, 2));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_hmset_sync(context, 8, ace, nullptr, 1));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_scan_sync(context, 8, ace, 0, nullptr, nullptr));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_subscribe(context, 8, ace, 4, hearing::callback, nullptr));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_batch_begin(nullptr));
    EXPECT_EQ(nullptr, tq_mom_hgetall_sync(context, 8, nullptr));
    tq_mom_hash_res_free(nullptr);
    EXPECT_EQ(0u, scan(context, ace).size());
}

TEST_P(store_suite, a_scan_goes_on_while_its_callback_writes_and_deletes)
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

TEST_P(store_suite, a_batch_is_in_the_store_at_its_end_and_before_any_read)
{
    auto *context = open();
    ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(context));
    for (uint64_t sn = 1; sn <= 1000; ++sn) {
        ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, sn, sn)));
        ASSERT_EQ(TQ_MOM_OK, write_psta(context, 8, psta_record("a", 1, sn, sn)));
    }
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, psta_record("a", 1, 7)));
    EXPECT_EQ("no record", stored(context, psta_record("a", 1, 7)));
    EXPECT_NE("no record", stored(context, psta_record("a", 1, 8)));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, psta_record("a", 1, 8)));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(context, nullptr, 0));
    EXPECT_EQ(1000u, scan(context, ace_record("a", 0, 0), 1).size());
    EXPECT_EQ(998u, scan(context, psta_record("a", 0, 0), 1).size());
    EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(context, nullptr, 0));
}

} // namespace
