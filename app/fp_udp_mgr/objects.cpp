// The objects that an application fills and hands over: ACEs and applies, each with a buffer for its attributes.
#include "operations.hpp"

#include <cstdlib>

using namespace plx::mgr;

extern "C" {

fp_udp_ace *fp_udp_alloc_ace(uint64_t sn, uint8_t default_ace)
{
    auto *ace = static_cast<fp_udp_ace *>(std::calloc(1, sizeof(fp_udp_ace)));
    if (ace == nullptr) {
        report<Error>("alloc ace fail, sn : %lld.\n", sn);
        return nullptr;
    }
    ace->tlv = new_tlv();
    if (ace->tlv == nullptr) {
        report<Error>("alloc ace tlv fail, sn : %lld.\n", sn);
        std::free(ace);
        return nullptr;
    }
    ace->sn = sn;
    ace->default_ace = default_ace;
    return ace;
}

void fp_udp_free_ace(fp_udp_ace *ace)
{
    if (ace == nullptr)
        return;
    std::free(ace->tlv);
    std::free(ace);
}

fp_udp_apply *fp_udp_alloc_apply(const fp_udp_apply_key *key)
{
    if (key == nullptr)
        return nullptr;
    auto *apply = static_cast<fp_udp_apply *>(std::calloc(1, sizeof(fp_udp_apply)));
    fp_udp_ace_tlv *tlv = apply == nullptr ? nullptr : new_tlv();
    if (tlv == nullptr) {
        report<Error>("allc apply fail.\n");
        std::free(apply);
        return nullptr;
    }
    std::memcpy(apply->apply_type, key->apply_type, sizeof apply->apply_type);
    apply->phyid = key->phyid;
    apply->priority = key->priority;
    apply->direction = key->direction;
    apply->tlv = tlv;
    return apply;
}

void fp_udp_free_apply(fp_udp_apply *apply)
{
    if (apply == nullptr)
        return;
    std::free(apply->tlv);
    std::free(apply);
}

} // extern "C"
