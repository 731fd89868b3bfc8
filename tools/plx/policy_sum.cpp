// See policy_sum.hpp.
#include "policy_sum.hpp"

#include "names.hpp"
#include "nodes/holdings.hpp"

#include <algorithm>
#include <plx/digest.h>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>

namespace plx::tool {

namespace {

constexpr uint64_t acl_key = 0xac1; // what the numbers of their keys begin with, beside those of nodes' tables

// As the library keeps it: with zeros behind.
std::array<uint8_t, FP_UDP_PRIV_SIZE> kept_name(std::string_view name)
{
    uint8_t priv[FP_UDP_PRIV_SIZE] = {};
    copy_name(priv, name);
    return std::to_array(priv);
}

uint64_t with_name(uint64_t content, std::span<const uint8_t> name)
{
    return plx_digest_text(content, reinterpret_cast<const char *>(name.data()), name.size());
}

} // namespace

PolicySum::PolicySum(const Policy &policy)
{
    for (const PolicyAcl &acl : policy.acls)
        add_acl(acl.id, acl.cls, kept_name(acl.name));
    for_each_record(policy,
                    [this](const Key &key, const Requested &wanted) { add(key, wanted, kept_name(wanted.name)); });
}

void PolicySum::add_acl(uint32_t acl, uint32_t cls, std::span<const uint8_t> name)
{
    all_.add(plx_digest_number(acl_key, acl), with_name(cls, name));
}

void PolicySum::add(const Key &key, const Requested &wanted, std::span<const uint8_t> name)
{
    const uint64_t number = digest_of(key), content = wanted.fingerprint();
    on_nodes_.add(number, content);
    all_.add(number, with_name(content, name));
}

void PolicySum::add(const ProtobufCMessage &record)
{
    if (record.descriptor == &s_policy__acl__descriptor) {
        const auto &acl = reinterpret_cast<const SPolicy__Acl &>(record);
        if (acl.index != nullptr)
            add_acl(acl.index->acl_id, acl.acl_cls, span_of(acl.priv));
        return;
    }
    const auto key = plx::key_of(&record);
    if (!key)
        return;
    const auto name = record.descriptor == &s_policy__ace__descriptor
                          ? span_of(reinterpret_cast<const SPolicy__Ace &>(record).priv)
                          : span_of(reinterpret_cast<const SPolicy__Apply &>(record).priv);
    add(*key, requested_of(&record), name);
}

namespace {

struct Search {
    const FileDigest &file;
    std::optional<KnownFile> &found;
};

int32_t on_file(void *, const tq_mom_notification *told, void *arg)
{
    const auto &[file, found] = *static_cast<Search *>(arg);
    const auto *record = reinterpret_cast<const PlxNode__PolicyFile *>(told->record);
    if (told->result != 0 || record == nullptr || record->index == nullptr || record->index->app == nullptr)
        return 0;
    const auto bytes = span_of(record->file);
    const std::string application = record->index->app;
    if (!std::equal(bytes.begin(), bytes.end(), file.begin(), file.end()) || application.empty() ||
        application.size() >= FP_UDP_APP_TYPE_SIZE)
        return 0;
    found = KnownFile{file, application, {record->records, record->digest_lo, record->digest_hi}};
    return 0;
}

} // namespace

int find_file(tq_context *context, uint32_t db, const FileDigest &file, std::optional<KnownFile> &known)
{
    known.reset();
    Search search{file, known};
    const Record whole(plx_node__policy_file__descriptor);
    return tq_mom_scan_sync(context, db, whole.message(), 0, on_file, &search);
}

int keep_file(tq_context *context, uint32_t db, const KnownFile &known)
{
    FileDigest bytes = known.file;
    std::string application = known.application;
    PlxNode__PolicyFileIndex index = PLX_NODE__POLICY_FILE_INDEX__INIT;
    PlxNode__PolicyFile record = PLX_NODE__POLICY_FILE__INIT;
    index.app = application.data();
    record.index = &index;
    record.file = {bytes.size(), bytes.data()};
    record.records = known.sum.count;
    record.digest_lo = known.sum.lo;
    record.digest_hi = known.sum.hi;
    return tq_mom_set_sync(context, db, &record.base);
}

} // namespace plx::tool
