// The functions behind the manager table's slots, and those of them that other operations build on.
#pragma once

#include "area.hpp"

extern "C" {

int32_t fp_udp_set_acl(void *ctx, const fp_udp_acl *acl);
int32_t fp_udp_del_acl(void *ctx, const fp_udp_acl_key *key);
int32_t fp_udp_expire_acl(void *ctx, const char *app_type);
int32_t fp_udp_del_expire_acl(void *ctx, const char *app_type);
uint64_t *fp_udp_iterator_ace(void *ctx, const fp_udp_acl_key *key, uint64_t **sn, uint32_t *count);
int32_t fp_udp_get_acl_cls(void *ctx, int32_t acl_id, uint8_t *acl_cls);

int32_t fp_udp_set_ace(void *ctx, const fp_udp_acl_key *key, const fp_udp_ace *ace);
int32_t fp_udp_delete_ace(void *ctx, const fp_udp_acl_key *key, uint64_t sn);
int32_t fp_udp_expire_ace(void *ctx, const char *app_type);
int32_t fp_udp_del_expire_ace(void *ctx, const char *app_type);
fp_udp_ace *fp_udp_get_ace(void *ctx, const fp_udp_acl_key *key, uint64_t sn);

fp_udp_ace *fp_udp_alloc_ace(uint64_t sn, uint8_t default_ace);
void fp_udp_free_ace(fp_udp_ace *ace);
fp_udp_ace *fp_udp_copy_ace(const fp_udp_ace *old, int32_t whole, uint8_t *fwd_zero);

int32_t fp_udp_set_apply(void *ctx, const fp_udp_acl_info *acl, uint32_t acl_cls, const fp_udp_apply *apply);
int32_t fp_udp_del_apply(void *ctx, const fp_udp_acl_info *acl, const fp_udp_apply *apply);
int32_t fp_udp_expire_apply(void *ctx, const char *apply_type);
int32_t fp_udp_del_expire_apply(void *ctx, const char *apply_type);
fp_udp_apply *fp_udp_alloc_apply(const fp_udp_apply_key *key);
void fp_udp_free_apply(fp_udp_apply *apply);

int32_t fp_udp_set_port_disable(void *ctx, uint32_t phyid);
int32_t fp_udp_del_port_disable(void *ctx, uint32_t phyid);
int32_t fp_udp_svi_router_enable(void *ctx, const uint8_t *priv, uint32_t enable);
int32_t fp_udp_expire_svi_router_enable(void *ctx);
int32_t fp_udp_del_expire_svi_router_enable(void *ctx);
void fp_udp_uplink_enable(void *ctx, const fp_udp_uplink *uplink, uint32_t enable);
int32_t fp_udp_expire_uplink(void *ctx);
int32_t fp_udp_del_expire_uplink(void *ctx);
int32_t fp_udp_set_port_bindinfo(void *ctx, const char *app_type, uint32_t acl_cls, uint32_t phyid, uint32_t bind_type,
                                 uint32_t bind_id);
int32_t fp_udp_del_port_bindinfo(void *ctx, const char *app_type, uint32_t acl_cls, uint32_t phyid, uint32_t bind_type,
                                 uint32_t bind_id);

int32_t fp_udp_enable_app_commit(void *ctx, const char *app_type, uint32_t tm_val);
int32_t fp_udp_disable_app_commit(void *ctx, const char *app_type);
int32_t fp_udp_publish_app_commit(void *ctx, const char *app_type);

} // extern "C"

namespace plx::mgr {

// Reads the class of an ACL of any application type from database 0 or 8. 0, -4, -7 or -11; *acl_cls is written on
// success alone.
[[nodiscard]] int32_t fp_get_acl_cls(void *ctx, uint32_t db, const char *app_type, uint32_t acl_id, uint8_t *acl_cls);

// A new, empty attribute buffer, or null.
[[nodiscard]] fp_udp_ace_tlv *new_tlv();

// Gives a buffer room for `len` attribute bytes and returns it, moved perhaps; null, with the buffer as it was, when
// memory is short.
[[nodiscard]] fp_udp_ace_tlv *resize_tlv(fp_udp_ace_tlv *tlv, size_t len);

} // namespace plx::mgr
