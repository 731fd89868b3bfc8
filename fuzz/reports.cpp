// What service nodes say: whatever bytes unpack into as a report or an answer, its texts are bounded.
#include "input.hpp"

#include <memory>
#include <records/node_report.hpp>

namespace {

using namespace plx;
using Message = std::unique_ptr<ProtobufCMessage, void (*)(ProtobufCMessage *)>;

constexpr size_t longest = 256;

void check(const NodeEntry &entry)
{
    fuzz::require(entry.app.size() <= longest && entry.name.size() <= longest && entry.text.size() <= longest,
                  "texts are cut");
}

void check(const ProtobufCMessage *record)
{
    (void)node_of(record);
    const auto report = report_of(record);
    fuzz::require(report.has_value() == (record->descriptor == &plx_node__node_report__descriptor), "a report is one");
    if (!report)
        return;
    fuzz::require(report->plane.size() <= longest, "texts are cut");
    for (const NodeEntry &refusal : report->refusals)
        check(refusal);
    for (const auto &[app, one] : report->applications)
        fuzz::require(app.size() <= longest, "texts are cut");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input input(data, size);
    const bool report = input.number() % 2 == 0;
    const std::string bytes = input.rest();
    const auto *descriptor = report ? &plx_node__node_report__descriptor : &plx_node__node_answer__descriptor;
    const Message record(
        protobuf_c_message_unpack(descriptor, nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())),
        [](ProtobufCMessage *each) { protobuf_c_message_free_unpacked(each, nullptr); });
    if (record == nullptr)
        return 0;
    check(record.get());
    const auto *answer = reinterpret_cast<const PlxNode__NodeAnswer *>(record.get());
    for (size_t at = 0; !report && at < answer->n_entries; ++at)
        check(entry_of(*answer->entries[at]));
    return 0;
}
