// The operations that take a key, by name and number.
#pragma once

#include <support/application.h>

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
    int32_t del_apply(const std::string &type, uint32_t id, const std::string &apply_type, uint32_t phyid,
                      uint32_t pri = 0)
    {
        const fp_udp_acl_info acl = make_info(type, id);
        return mgr->del_apply(&context, &acl, make_apply(mgr, apply_type, phyid, pri).get());
    }
};
