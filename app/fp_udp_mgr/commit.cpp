// Commit markers: an application's enable marker, which bounds in seconds how long its changes may stay staged, and its
// publish marker. The store's result is the operation's.
#include "operations.hpp"
#include "store_record.hpp"

namespace plx::mgr {
namespace {

constexpr uint32_t max_seconds = 60;

// A null application type is stored, and shown, as an empty one: not every platform's formatter takes a null text.
const char *shown(const char *app_type)
{
    return app_type == nullptr ? "" : app_type;
}

void fill(SPolicy__AppCommitKey &key, const char *app_type, uint32_t operation)
{
    if (app_type != nullptr)
        key.apply_type = field_text(app_type);
    key.commit_op_type = operation;
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

int32_t fp_udp_enable_app_commit(void *ctx, const char *app_type, uint32_t tm_val)
{
    if (tm_val > max_seconds) {
        report<Error>("error paras tm_val: %d s < 0.\n", tm_val); // "< 0": log readers match this text
        return FP_UDP_INVALID;
    }
    report<Detail>("app commmit enable, app_type: %s.\n", shown(app_type));
    store_record<SPolicy__AppCommit> record;
    fill(record.key, app_type, S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE);
    record.values.tm_val = tm_val;
    const int rv = record.write_whole(ctx);
    if (rv != 0)
        report<Error>("app commit enable hset failed, rv: %d, db: %d.\n", rv, para.db);
    return rv;
}

int32_t fp_udp_disable_app_commit(void *ctx, const char *app_type)
{
    report<Detail>("app commmit disable, app_type: %s.\n", shown(app_type));
    store_record<SPolicy__AppCommit> record;
    fill(record.key, app_type, S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE);
    const int rv = record.del(ctx);
    if (rv != 0)
        report<Error>("app commmit enable del failed, rv: %d, db: %d.\n", rv,
                      para.db); // three m, and "enable": log readers match this text
    return rv;
}

int32_t fp_udp_publish_app_commit(void *ctx, const char *app_type)
{
    report<Detail>("app commmit, app_type: %s.\n", shown(app_type));
    store_record<SPolicy__AppCommit> record;
    fill(record.key, app_type, S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_PUBLISH);
    const int rv = record.write_whole(ctx);
    if (rv != 0)
        report<Error>("app commit set failed, rv: %d, db: %d.\n", rv, para.db);
    return rv;
}

} // extern "C"
