/* libcgstctrl.h: topic registration. A topic is a table that an application offers to the rest of the switch. */
#ifndef LIBCGSTCTRL_H
#define LIBCGSTCTRL_H

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Starts registration for the user `name`; `value` is the store database that keeps the topics. 0 on success. */
int libcgstctrl_gen_init(void *context, uint32_t value, const char *name);

/* Registers the table of `record` as a topic of `name`. Registering it again succeeds. `reserved` is 0. 0 on success.
 */
int libcgstctrl_gen_topic_reg(void *context, uint32_t value, const char *name, const ProtobufCMessage *record,
                              int reserved);

#ifdef __cplusplus
}
#endif

#endif
