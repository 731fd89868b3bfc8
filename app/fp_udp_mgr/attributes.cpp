// The attribute buffers of ACEs and applies: names become type words, values are packed behind each other.
//
// A buffer is one heap block of exactly the header and its `len` data bytes; every append may move it. Lengths inside a
// buffer are the application's word: whoever walks attributes stops at the buffer's end, whatever they claim.
#include "operations.hpp"

#include <algorithm>
#include <cstdlib>
#include <span>

namespace plx::mgr {
namespace {

constexpr size_t tlv_header = offsetof(fp_udp_ace_tlv, data);
constexpr uint32_t class_bits = 8;

// What a packed attribute begins with.
struct attr_header {
    uint32_t type;
    uint32_t len;
};
static_assert(sizeof(attr_header) == FP_UDP_ATTR_HEADER_SIZE);

constexpr uint32_t fwd_type = 2u << class_bits | FP_UDP_ATTR_ACTION;
constexpr uint16_t fwd_packed_size = sizeof(attr_header) + 1; // of the one `fwd` that a copy leaves out

std::span<const fp_udp_attr_entry> table_of(uint32_t cls)
{
    switch (cls) {
    case FP_UDP_ATTR_CTRL:
        return ctrl_attr;
    case FP_UDP_ATTR_FIELD:
        return field_attr;
    default:
        return action_attr;
    }
}

// The type word of a name; only the class, and a report, when the class's table has no such name.
uint32_t fp_udp_retrive_attr_name(const char *name, uint32_t cls)
{
    for (const fp_udp_attr_entry &row : table_of(cls))
        if (std::strncmp(name, row.name, sizeof row.name) == 0)
            return row.id << class_bits | cls;
    report<Error>("invalid param! name:%s type:%d", name, cls);
    return cls;
}

// One attribute of a buffer, with what of its value lies inside the buffer.
struct packed_attr {
    uint32_t type;
    std::span<const uint8_t> value;
    std::span<const uint8_t> whole;
};

// Takes the first attribute off `rest`. A header that does not fit any more is a value without one.
packed_attr take_attr(std::span<const uint8_t> &rest)
{
    attr_header header = {};
    const size_t head = std::min(rest.size(), sizeof header);
    std::memcpy(&header, rest.data(), head);
    const size_t len = std::min<size_t>(header.len, rest.size() - head);
    const packed_attr attr = {header.type, rest.subspan(head, len), rest.first(head + len)};
    rest = rest.subspan(head + len);
    return attr;
}

fp_udp_ace *copy_whole(const fp_udp_ace &old, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    auto *copy = static_cast<fp_udp_ace *>(std::malloc(sizeof(fp_udp_ace)));
    if (copy == nullptr) {
        report<Error>(diag::place{function, line}, "malloc ace memory fail for copy ace.\n");
        return nullptr;
    }
    *copy = old;
    if (old.tlv == nullptr)
        return copy;
    copy->tlv = resize_tlv(nullptr, old.tlv->len);
    if (copy->tlv == nullptr) {
        report<Error>(diag::place{function, line}, "malloc ace memory fail for copy ace.\n");
        std::free(copy);
        return nullptr;
    }
    std::memcpy(copy->tlv, old.tlv, tlv_header + old.tlv->len);
    return copy;
}

// Copies every attribute but `fwd`, as far as the new buffer reaches; its remainder stays zero.
void copy_without_fwd(std::span<const uint8_t> from, std::span<uint8_t> to, uint8_t *fwd_zero)
{
    while (!from.empty()) {
        const packed_attr attr = take_attr(from);
        if (attr.type == fwd_type) {
            if (fwd_zero != nullptr)
                *fwd_zero = !attr.value.empty() && attr.value[0] == 0 ? 1 : 0;
            continue;
        }
        const size_t n = std::min(attr.whole.size(), to.size());
        std::copy_n(attr.whole.begin(), n, to.begin());
        to = to.subspan(n);
    }
}

fp_udp_ace *copy_without_fwd(const fp_udp_ace &old, uint8_t *fwd_zero, const char *function = __builtin_FUNCTION(),
                             int line = __builtin_LINE())
{
    fp_udp_ace *copy = fp_udp_alloc_ace(old.sn, old.default_ace);
    if (copy == nullptr)
        return nullptr;
    const uint16_t old_len = old.tlv == nullptr ? uint16_t{0} : old.tlv->len;
    const auto len = static_cast<uint16_t>(old_len - fwd_packed_size);
    fp_udp_ace_tlv *tlv = resize_tlv(copy->tlv, len);
    if (tlv == nullptr) {
        report<Error>(diag::place{function, line}, "realloc ace tlv fail.\n");
        fp_udp_free_ace(copy);
        return nullptr;
    }
    copy->tlv = tlv;
    tlv->len = len;
    std::fill_n(tlv->data, len, uint8_t{0});
    if (old_len != 0)
        copy_without_fwd({old.tlv->data, old_len}, {tlv->data, len}, fwd_zero);
    return copy;
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

static void fp_udp_construct_attr(fp_udp_attr *attr, const char *name, uint32_t cls, const uint8_t *value, int32_t len)
{
    if (attr == nullptr || len > FP_UDP_ATTR_VALUE_MAX || value == nullptr || name == nullptr) {
        report<Error>("invalid param! len:%d max_len:%d attr:%p name:%p value:%p", len, int{FP_UDP_ATTR_VALUE_MAX},
                      attr, name, value);
        return;
    }
    const size_t name_size = std::strlen(name) + 1;
    if (name_size > FP_UDP_ATTR_NAME_MAX) {
        report<Error>("invalid string name:%s, max_len:%d!", name, int{FP_UDP_ATTR_NAME_MAX});
        return;
    }
    std::memcpy(attr->name, name, name_size);
    attr->cls = cls;
    attr->len = len;
    if (len > 0) // a negative length is push's to refuse
        std::memcpy(attr->value, value, static_cast<size_t>(len));
}

static void fp_udp_push_attr(fp_udp_ace_tlv **tlv, fp_udp_attr attr)
{
    if (tlv == nullptr) {
        report<Error>("invalid param! tlv:%p", tlv);
        return;
    }
    const auto value_len = static_cast<uint32_t>(attr.len);
    if (value_len > FP_UDP_ATTR_VALUE_MAX) {
        report<Error>("value_len param error, value_len = %d.\n", attr.len);
        return;
    }
    if (attr.cls > FP_UDP_ATTR_ACTION) {
        report<Error>("type param error, type = %d.\n", attr.cls);
        return;
    }
    attr.name[sizeof attr.name - 1] = '\0';
    const attr_header header = {fp_udp_retrive_attr_name(attr.name, attr.cls), value_len};
    if (header.type >> class_bits == 0) {
        report<Error>("type param error, type = %d.\n", attr.cls);
        return;
    }
    const size_t old_len = *tlv == nullptr ? 0 : (*tlv)->len;
    fp_udp_ace_tlv *grown = resize_tlv(*tlv, old_len + sizeof header + value_len);
    if (grown == nullptr) {
        std::free(*tlv);
        *tlv = nullptr;
        report<Error>("realloc tlv fail.\n");
        return;
    }
    *tlv = grown;
    std::memcpy(grown->data + old_len, &header, sizeof header);
    std::memcpy(grown->data + old_len + sizeof header, attr.value, value_len);
    grown->len = static_cast<uint16_t>(old_len + sizeof header + value_len);
}

fp_udp_ace *fp_udp_copy_ace(const fp_udp_ace *old, int32_t whole, uint8_t *fwd_zero)
{
    if (old == nullptr)
        return nullptr;
    report<Detail>("old ace sn : %lld\n", old->sn);
    return whole != 0 ? copy_whole(*old) : copy_without_fwd(*old, fwd_zero);
}

} // extern "C"

namespace plx::mgr {

fp_udp_ace_tlv *new_tlv()
{
    return resize_tlv(nullptr, 0);
}

fp_udp_ace_tlv *resize_tlv(fp_udp_ace_tlv *tlv, size_t len)
{
    // The structure's own size has padding behind `data` that a short buffer must still back.
    auto *resized =
        static_cast<fp_udp_ace_tlv *>(std::realloc(tlv, std::max(tlv_header + len, sizeof(fp_udp_ace_tlv))));
    if (resized != nullptr && tlv == nullptr) {
        resized->construct = fp_udp_construct_attr;
        resized->push = fp_udp_push_attr;
        resized->len = 0;
    }
    return resized;
}

} // namespace plx::mgr
