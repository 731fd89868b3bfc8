// The attribute buffer: name tables, construct and push, allocation and copies.
#include <cstring>
#include <support/application.h>

namespace {

class attributes : public library_case {
  protected:
    attributes() { mgr = fp_udp_get_mgr(); }
};

std::vector<uint8_t> packed(const fp_udp_ace &ace)
{
    return {ace.tlv->data, ace.tlv->data + ace.tlv->len};
}

uint32_t word_at(const fp_udp_ace &ace, size_t offset)
{
    uint32_t word;
    memcpy(&word, ace.tlv->data + offset, sizeof word);
    return word;
}

uint64_t fnv1a(const void *bytes, size_t size)
{
    uint64_t hash = 0xcbf29ce484222325;
    for (size_t i = 0; i < size; i++)
        hash = (hash ^ static_cast<const uint8_t *>(bytes)[i]) * 0x100000001b3;
    return hash;
}

TEST_F(attributes, every_name_keeps_its_wire_id)
{
    // Checksums over the zero-padded names and little-endian ids, made from the published table of identifiers.
    EXPECT_EQ(fnv1a(ctrl_attr, sizeof ctrl_attr), 0x2042301d7bf70bb1);
    EXPECT_EQ(fnv1a(field_attr, sizeof field_attr), 0xd5630630af900883);
    EXPECT_EQ(fnv1a(action_attr, sizeof action_attr), 0x4c3c92344276caea);
}

TEST_F(attributes, the_class_chooses_the_table_of_a_name)
{
    struct {
        const char *name;
        uint32_t cls, word;
    } const rows[] = {{"vid", 1, 0x501},
                      {"vid", 2, 0xD02},
                      {"fwd", 2, 0x202},
                      {"no_default", 0, 0x300},
                      {"act_em_class", 1, 0x2E01},
                      {"l2_sa_hit", 1, 0x2E01},
                      {"internal_port", 1, 0xC901},
                      {"meter_grp", 0, 0x100},
                      {"logic_port", 2, 0x3102}};
    for (const auto &row : rows) {
        owned_ace ace = make_ace(mgr, 1);
        push(ace, row.name, row.cls, {9});
        ASSERT_EQ(ace->tlv->len, 9) << row.name;
        EXPECT_EQ(word_at(*ace, 0), row.word) << row.name;
    }
}

TEST_F(attributes, values_are_packed_in_push_order_without_padding)
{
    owned_ace ace = make_ace(mgr, 1);
    push(ace, "src_l4port", 1, {1, 2, 3, 4});
    push(ace, "dst_mac", 1, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(packed(*ace),
              (std::vector<uint8_t>{1, 29, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4, 1, 1, 0, 0, 6, 0, 0, 0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(fake::log.take(), lines{});
}

TEST_F(attributes, an_attribute_out_of_bounds_is_reported_and_changes_nothing)
{
    owned_ace ace = make_ace(mgr, 1);
    fp_udp_attr attr, untouched;
    memset(&untouched, 0xEE, sizeof untouched);
    const std::vector<uint8_t> value(250, 7);
    auto construct = [&](const char *name, int32_t len) {
        attr = untouched;
        ace->tlv->construct(&attr, name, 1, value.data(), len);
    };
    auto push_says = [&](const lines &messages) {
        ace->tlv->push(&ace->tlv, attr);
        EXPECT_EQ(fake::log.take(), messages);
    };
    construct("seventeen_letters", 240);
    EXPECT_STREQ(attr.name, "seventeen_letters");
    EXPECT_EQ(attr.name[18], '\xEE');
    EXPECT_EQ(attr.value[239], 7);
    construct("vid", 2);
    EXPECT_EQ(attr.value[2], 0xEE);
    EXPECT_EQ(fake::log.take(), lines{});

    construct("eighteen_letters_x", 1);
    EXPECT_EQ(fake::log.take(), lines{"E invalid string name:eighteen_letters_x, max_len:18!"});
    construct("vid", 241);
    EXPECT_EQ(fake::log.take().at(0).find("E invalid param! len:241 max_len:240 attr:0x"), 0U);
    ace->tlv->construct(&attr, nullptr, 1, value.data(), 1);
    ace->tlv->construct(&attr, "vid", 1, nullptr, 1);
    ace->tlv->construct(nullptr, "vid", 1, value.data(), 1);
    const lines messages = fake::log.take();
    for (size_t i = 0; i < 3; i++)
        EXPECT_NE(messages.at(i).find((lines{"name:(nil)", "value:(nil)", "attr:(nil)"})[i]), std::string::npos);
    EXPECT_EQ(memcmp(&attr, &untouched, sizeof attr), 0);

    construct("vid", -1); // left to push
    EXPECT_EQ(fake::log.take(), lines{});
    EXPECT_EQ(attr.len, -1);
    push_says({"E value_len param error, value_len = -1.\n"});
    attr.len = 241;
    push_says({"E value_len param error, value_len = 241.\n"});
    construct("vid", 1);
    attr.cls = 3;
    push_says({"E type param error, type = 3.\n"});
    attr.cls = 0;
    push_says({"E invalid param! name:vid type:0", "E type param error, type = 0.\n"});
    memset(attr.name, 'x', sizeof attr.name);
    ace->tlv->push(&ace->tlv, attr);
    EXPECT_EQ(fake::log.kept.at(0).func, "fp_udp_retrive_attr_name");
    EXPECT_EQ(fake::log.take().size(), 2U);
    EXPECT_EQ(ace->tlv->len, 0);
    construct("vid", 240);
    push_says({});
    EXPECT_EQ(ace->tlv->len, 248);
}

TEST_F(attributes, a_length_beyond_16_bits_wraps_inside_its_block)
{
    owned_ace ace = make_ace(mgr, 1);
    for (int i = 0; i < 265; i++)
        push(ace, "vid", 1, std::vector<uint8_t>(240, 1));
    EXPECT_EQ(ace->tlv->len, 265 * 248 - 65536);
}

TEST_F(attributes, a_new_entry_is_zero_but_for_its_name)
{
    owned_ace ace(mgr->alloc_ace(0x123456789AULL, 1), mgr->free_ace);
    EXPECT_EQ(ace->sn, 0x123456789AULL);
    EXPECT_EQ(ace->default_ace, 1);
    EXPECT_EQ(ace->ace_pri, 0U);
    EXPECT_EQ(fake::hex(ace->priv, 4), "00000000");
    EXPECT_EQ(ace->tlv->len, 0);
    mgr->free_ace(nullptr);
}

TEST_F(attributes, a_whole_copy_is_equal_and_apart)
{
    owned_ace ace = make_ace(mgr, 7, 3, 99, 1);
    push(ace, "fwd", 2, {0});
    push(ace, "vid", 1, {1, 2});
    uint8_t fwd_zero = 77;
    owned_ace copy(mgr->copy_ace(ace.get(), 1, &fwd_zero), mgr->free_ace);
    EXPECT_NE(copy->tlv, ace->tlv);
    EXPECT_EQ(packed(*copy), packed(*ace));
    EXPECT_EQ(copy->tlv->push, ace->tlv->push);
    EXPECT_EQ(memcmp(copy.get(), ace.get(), offsetof(fp_udp_ace, tlv)), 0);
    EXPECT_EQ(fwd_zero, 77);
    EXPECT_EQ(fake::log.take(), lines{"D old ace sn : 7\n"});
    EXPECT_EQ(mgr->copy_ace(nullptr, 1, &fwd_zero), nullptr);
}

TEST_F(attributes, a_copy_without_forwarding_leaves_the_forwarding_action_out)
{
    for (uint8_t fwd : std::vector<uint8_t>{0, 1}) {
        owned_ace ace = make_ace(mgr, 7, 3, 99, 1), rest = make_ace(mgr, 7);
        push(ace, "vid", 1, {1, 2});
        push(rest, "vid", 1, {1, 2});
        push(ace, "fwd", 2, {fwd});
        push(ace, "vid", 2, {3});
        push(rest, "vid", 2, {3});
        uint8_t fwd_zero = 77;
        owned_ace copy(mgr->copy_ace(ace.get(), 0, &fwd_zero), mgr->free_ace);
        EXPECT_EQ(packed(*copy), packed(*rest));
        EXPECT_EQ(fwd_zero, fwd == 0);
        EXPECT_EQ(copy->default_ace, 1);
        EXPECT_EQ(copy->ace_pri, 0U);
        EXPECT_EQ(copy->priv[5], 0);
    }
}

TEST_F(attributes, a_copy_without_forwarding_is_nine_bytes_shorter_whatever_it_holds_and_its_block_backs_them)
{
    struct {
        std::vector<uint8_t> bytes; // of the old entry, which may lie
        uint16_t len;
        uint8_t fwd_zero; // 77: left alone
        std::vector<uint8_t> begins;
    } const rows[] = {
        {{}, 65527, 77, {0, 0}},
        {{1, 5, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4}, 3, 77, {1, 5, 0}},                     // no forwarding action
        {{2, 2, 0, 0, 0, 0, 0, 0}, 65535, 0, {0, 0}},                                 // one without a value
        {{2, 2, 0, 0, 1, 0, 0, 0, 0, 2, 2, 0, 0, 1, 0, 0, 0, 5}, 9, 0, {0, 0, 0, 0}}, // two
        {{1, 5, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}, 1, 77, {1}},                     // a length beyond the block
        {{1, 5, 0, 0, 0xF8, 0xFF, 0xFF, 0xFF, 1, 2}, 1, 77, {1}},                     // one that leads backwards
        {{1, 5, 0}, 65530, 77, {1, 5, 0, 0}},                                         // half a header
    };
    for (const auto &row : rows) {
        owned_ace ace = make_ace(mgr, 7);
        ace->tlv = static_cast<fp_udp_ace_tlv *>(realloc(ace->tlv, offsetof(fp_udp_ace_tlv, data) + row.bytes.size()));
        std::copy(row.bytes.begin(), row.bytes.end(), ace->tlv->data);
        ace->tlv->len = static_cast<uint16_t>(row.bytes.size());
        uint8_t fwd_zero = 77;
        owned_ace copy(mgr->copy_ace(ace.get(), 0, &fwd_zero), mgr->free_ace);
        ASSERT_NE(copy, nullptr);
        ASSERT_EQ(copy->tlv->len, row.len);
        std::vector<uint8_t> all(copy->tlv->data, copy->tlv->data + row.len); // reads the whole block
        all.resize(std::min(all.size(), row.begins.size()));
        EXPECT_EQ(all, row.begins);
        EXPECT_EQ(fwd_zero, row.fwd_zero);
    }
}

TEST_F(attributes, an_entry_that_lost_its_buffer_can_be_copied_and_freed)
{
    owned_ace ace = make_ace(mgr, 7);
    auto *push = ace->tlv->push;
    fp_udp_attr attr{};
    ace->tlv->construct(&attr, "vid", 1, attr.value, 4);
    {
        fake::failing_allocation fail(1);
        push(&ace->tlv, attr);
    }
    EXPECT_EQ(ace->tlv, nullptr);
    EXPECT_EQ(fake::log.take(), lines{"E realloc tlv fail.\n"});
    push(&ace->tlv, attr); // begins another
    ASSERT_NE(ace->tlv, nullptr);
    EXPECT_EQ(ace->tlv->len, 8 + 4);
    for (int whole : {0, 1}) {
        uint8_t fwd_zero = 0;
        owned_ace copy(mgr->copy_ace(ace.get(), whole, &fwd_zero), mgr->free_ace);
    }
}

TEST_F(attributes, exhausted_memory_is_reported_at_each_site)
{
    owned_ace ace = make_ace(mgr, 7);
    push(ace, "vid", 1, {1, 2, 3, 4});
    uint8_t fwd_zero;
    fp_udp_apply_key key{};
    const auto says = [](int site, auto work, const lines &messages) {
        const long blocks = fake::live_blocks();
        {
            fake::failing_allocation fail(site);
            EXPECT_EQ(work(), nullptr) << site;
            EXPECT_EQ(fake::log.take("E"), messages);
        }
        EXPECT_EQ(fake::live_blocks(), blocks) << site;
    };
    const auto make = [&] { return mgr->alloc_ace(7, 0); };
    const auto copy = [&] { return mgr->copy_ace(ace.get(), 1, &fwd_zero); };
    const auto copy_a_part = [&] { return mgr->copy_ace(ace.get(), 0, &fwd_zero); };
    says(1, make, {"E alloc ace fail, sn : 7.\n"});
    says(2, make, {"E alloc ace tlv fail, sn : 7.\n"});
    for (int site : {1, 2})
        says(site, copy, {"E malloc ace memory fail for copy ace.\n"});
    says(1, copy_a_part, {"E alloc ace fail, sn : 7.\n"});
    says(2, copy_a_part, {"E alloc ace tlv fail, sn : 7.\n"});
    says(3, copy_a_part, {"E realloc ace tlv fail.\n"});
    for (int site : {1, 2})
        says(site, [&] { return mgr->alloc_apply(&key); }, {"E allc apply fail.\n"});
}

TEST_F(attributes, a_new_apply_carries_its_key_and_an_empty_buffer)
{
    owned_apply apply = make_apply(mgr, "my_app", 0x101, 4, 1);
    EXPECT_STREQ(apply->apply_type, "my_app");
    EXPECT_EQ(apply->phyid, 0x101U);
    EXPECT_EQ(apply->priority, 4U);
    EXPECT_EQ(apply->direction, 1U);
    push(apply, "vid", 1, {1});
    EXPECT_EQ(apply->tlv->len, 9);
    mgr->free_apply(nullptr);
}

} // namespace
