// The registries that an application fills once at start-up: its application types, and the tables it offers as topics.
#include "store_record.hpp"

#include <cstdlib>
#include <libcgstctrl.h>

extern "C" {
char *regist_app_type[FP_UDP_APP_TYPE_MAX] = {};
}

namespace plx::mgr {
namespace {

constexpr size_t max_length = 32; // one more than any operation takes; the entry has room for it

bool registered(const char *app_type)
{
    for (int32_t i = 0; i < para.app_type_num; ++i)
        if (std::strcmp(app_type, regist_app_type[i]) == 0)
            return true;
    return false;
}

template <class Message> [[nodiscard]] int register_topic(void *ctx, uint32_t value, const char *name)
{
    const store_record<Message> record;
    return libcgstctrl_gen_topic_reg(ctx, value, name, record.message(), 0);
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

int32_t fp_udp_register_app_type(const char *app_type)
{
    if (app_type == nullptr || strnlen(app_type, max_length + 1) > max_length) {
        report<Error>("invalid app_type.\n");
        return FP_UDP_REFUSED;
    }
    if (para.app_type_num >= FP_UDP_APP_TYPE_MAX) {
        report<Notice>("regist_app_type has reach maximum,return!.\n");
        return FP_UDP_REFUSED;
    }
    if (registered(app_type)) {
        report<Notice>("app_type has registered,return.\n");
        return FP_UDP_OK;
    }
    auto *entry = static_cast<char *>(std::calloc(1, max_length + 1));
    if (entry == nullptr) {
        report<Error>("regist_app_type malloc fail, app_type = %s \n", app_type);
        return FP_UDP_REFUSED;
    }
    std::memcpy(entry, app_type, std::strlen(app_type));
    regist_app_type[para.app_type_num++] = entry;
    return FP_UDP_OK;
}

int32_t fp_udp_cgst_register(void *ctx, uint32_t value, const char *name)
{
    if (ctx == nullptr || name == nullptr) {
        report<Error>("para error.\n");
        return FP_UDP_INVALID;
    }
    if (libcgstctrl_gen_init(ctx, value, name) != 0) {
        report<Error>("%s cgst init fail.\n", name);
        return FP_UDP_TOPIC_REFUSED;
    }
    if (const int rv = register_topic<SPolicy__Acl>(ctx, value, name); rv != 0) {
        report<Error>("libcgstctrl_acl_reg fail. rv[%d]", rv);
        return FP_UDP_TOPIC_REFUSED;
    }
    if (const int rv = register_topic<SPolicy__Ace>(ctx, value, name); rv != 0) {
        report<Error>("libcgstctrl_ace_reg fail. rv[%d]", rv);
        return FP_UDP_TOPIC_REFUSED;
    }
    if (const int rv = register_topic<SPolicy__Apply>(ctx, value, name); rv != 0) {
        report<Error>("libcgstctrl_apply_reg fail. rv[%d]", rv);
        return FP_UDP_TOPIC_REFUSED;
    }
    return FP_UDP_OK;
}

} // extern "C"
