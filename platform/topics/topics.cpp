// Topic registration behind libcgstctrl.h: a record in the policy store for each user and table.
//
// Applications call it at start-up; `plx show topic` and other readers find the records in the store. A user is known
// from gen_init on, for the context and database that it named there: a registration under any other is refused, so
// that a misspelt name does not create a user. Nothing is ever removed, as there is no call for it.
#include "libcgstctrl.h"
#include "platform/guard.hpp"
#include "tq_mom.h"
#include "tq_topics.pb-c.h"

#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <tuple>

namespace {

using user = std::tuple<const void *, uint32_t, std::string>;

std::set<user> &users()
{
    static std::set<user> known;
    return known;
}

bool is_message(const ProtobufCMessage *record)
{
    return record && record->descriptor && record->descriptor->magic == PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC;
}

// The descriptor's own short name is the name that the C type has.
const char *table_of(const ProtobufCMessage &record)
{
    const char *const package_end = strrchr(record.descriptor->name, '.');
    return package_end ? package_end + 1 : record.descriptor->name;
}

} // namespace

int libcgstctrl_gen_init(void *context, uint32_t value, const char *name)
try {
    if (!context || !name)
        return TQ_MOM_INVALID;
    if (const int result = tq_mom_client_connect_sync(context, value); result != 0)
        return result;
    users().emplace(context, value, name);
    return 0;
} catch (...) {
    return platform::thrown_result();
}

int libcgstctrl_gen_topic_reg(void *context, uint32_t value, const char *name, const ProtobufCMessage *record,
                              int reserved)
try {
    if (!context || !name || !is_message(record) || reserved != 0)
        return TQ_MOM_INVALID;
    if (!users().contains({context, value, name}))
        return TQ_MOM_INVALID;

    Topics__TopicKey key = TOPICS__TOPIC_KEY__INIT;
    key.user = const_cast<char *>(name);
    key.table = const_cast<char *>(table_of(*record));
    Topics__Topic topic = TOPICS__TOPIC__INIT;
    topic.index = &key;
    topic.db = value;
    topic.message = const_cast<char *>(record->descriptor->name);
    topic.registered_at = static_cast<uint64_t>(time(nullptr));
    return tq_mom_set_sync(context, value, &topic.base);
} catch (...) {
    return platform::thrown_result();
}
