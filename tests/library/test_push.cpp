// The checked ways to push attributes, which the installed header brings as code.
#include <plx/attribute.h>
#include <support/application.h>

namespace {

class checked_push : public library_case {
  protected:
    checked_push() { mgr = fp_udp_get_mgr(); }
};

TEST_F(checked_push, tells_which_attribute_is_missing)
{
    const std::vector<uint8_t> bytes(FP_UDP_ATTR_VALUE_MAX + 1, 7);
    const plx_attribute good = {FP_UDP_ATTR_ACTION, "fwd", bytes.data(), 1};
    const auto field = [&](const char *name, size_t len) { return plx_attribute{1, name, bytes.data(), len}; };
    const std::vector<plx_attribute> whole(264, field("vid", 240)); // 65472 bytes: 63 are left
    struct {
        std::vector<plx_attribute> list;
        int32_t result;
        const char *failed;
        size_t len; // of the buffer then; nothing is left of it after -2
        int failing_allocation;
    } const rows[] = {{{field("ipv4_src", 8), good}, FP_UDP_OK, nullptr, 25, 0},
                      {{good, field("ipv4_scr", 8), good}, FP_UDP_INVALID, "ipv4_scr", 9, 0},
                      {{good, field("fwd", 1)}, FP_UDP_INVALID, "fwd", 9, 0},
                      {{{3, "vid", bytes.data(), 2}}, FP_UDP_INVALID, "vid", 0, 0},
                      {{good, {1, "vid", nullptr, 2}}, FP_UDP_INVALID, "vid", 9, 0},
                      {{good, field(nullptr, 2)}, FP_UDP_INVALID, nullptr, 9, 0},
                      {{good, field("acl80", 241)}, FP_UDP_INVALID, "acl80", 9, 0},
                      {{good, field("acl80", static_cast<size_t>(-1))}, FP_UDP_INVALID, "acl80", 9, 0},
                      {{good, field("vid", 2), good}, FP_UDP_NO_MEMORY, "vid", 0, 2},
                      {whole, FP_UDP_OK, nullptr, 65472, 0}};
    for (const auto &row : rows) {
        owned_ace ace = make_ace(mgr, 1);
        owned_apply apply = make_apply(mgr, "my_app", 1);
        for (fp_udp_ace_tlv **tlv : {&ace->tlv, &apply->tlv}) {
            const fake::failing_allocation fail(row.failing_allocation);
            const char *failed = "untouched";
            EXPECT_EQ(plx_push_all(tlv, row.list.data(), row.list.size(), &failed), row.result);
            EXPECT_STREQ(failed, row.failed);
            EXPECT_EQ(*tlv == nullptr, row.result == FP_UDP_NO_MEMORY);
            EXPECT_EQ(*tlv == nullptr ? 0U : (*tlv)->len, row.len) << row.failed;
            EXPECT_EQ(plx_push(tlv, 1, "vid", bytes.data(), 56), *tlv == nullptr        ? FP_UDP_NO_MEMORY
                                                                 : row.len > 65535 - 64 ? FP_UDP_INVALID
                                                                                        : FP_UDP_OK);
        }
    }
    EXPECT_EQ(plx_push_all(nullptr, &good, 1, nullptr), FP_UDP_INVALID);
}

} // namespace
