// What the cases of the operations share: records as somebody else writes them to the store, and the operations that
// take a key, by name and number.
#pragma once

#include <support/application.h>
#include <support/keyed.h>

struct acl_record : keyed<SPolicy__Acl, SPolicy__AclKey, s_policy__acl__descriptor> {
    explicit acl_record(const std::string &name, uint32_t id, uint32_t cls = 0) : type(name)
    {
        key.t_app_type = type.data();
        key.acl_id = id;
        record.acl_cls = cls;
    }
    std::string type;
};

// An entry, its status and its counter.
struct ace_record : keyed<SPolicy__Ace, SPolicy__AceKey, s_policy__ace__descriptor> {
    ace_record(const std::string &name, uint32_t id, uint64_t sn, bool is_default = false) : type(name)
    {
        key.t_app_type = type.data();
        key.acl_id = id;
        key.sn = sn;
        status.index = counter.index = &key;
        record.default_ace = is_default;
    }
    std::string type;
    SPolicy__AcePsta status = S_POLICY__ACE_PSTA__INIT;
    SPolicy__AceCounter counter = S_POLICY__ACE_COUNTER__INIT;
};

class operations_case : public library_case {
  protected:
    int32_t del_acl(const std::string &type, uint32_t id)
    {
        const fp_udp_acl_key key = make_key(type, id);
        return mgr->del_acl(&context, &key);
    }
    int32_t del_ace(const std::string &type, uint32_t id, uint64_t sn)
    {
        const fp_udp_acl_key key = make_key(type, id);
        return mgr->delete_ace(&context, &key, sn);
    }
    owned_ace get_ace(const std::string &type, uint32_t id, uint64_t sn)
    {
        const fp_udp_acl_key key = make_key(type, id);
        return {mgr->get_ace(&context, &key, sn), mgr->free_ace};
    }
    int32_t del_apply(const std::string &type, uint32_t id, const std::string &apply_type, uint32_t phyid,
                      uint32_t pri = 0)
    {
        const fp_udp_acl_info acl = make_info(type, id);
        return mgr->del_apply(&context, &acl, make_apply(mgr, apply_type, phyid, pri).get());
    }
};

// The messages, and behind them that of a failure unless its result is 0.
inline lines said(lines messages, int result, const std::string &failure)
{
    if (result)
        messages.push_back(failure);
    return messages;
}
