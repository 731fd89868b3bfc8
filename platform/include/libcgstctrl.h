/* libcgstctrl.h: topic registration. A topic is a table that an application offers to the rest of the switch.
 *
 * fp_udp_cgst_register() calls these two, the second once for each of its tables; an application needs neither. The
 * reference implementation keeps topics as records of the store, which `plx show topic` lists.
 */
#ifndef LIBCGSTCTRL_H
#define LIBCGSTCTRL_H

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Starts registration for the user `name`; `value` is the store database that keeps the topics. Starting again changes
 * nothing. 0 on success. */
int libcgstctrl_gen_init(void *context, uint32_t value, const char *name);

/* Registers the table of `record` as a topic of `name`, who must have been started with the same context and value.
 * Nothing is ever removed: there is no call for it. Registering it again succeeds. `reserved` is 0. 0 on success.
 */
int libcgstctrl_gen_topic_reg(void *context, uint32_t value, const char *name, const ProtobufCMessage *record,
                              int reserved);

#ifdef __cplusplus
}
#endif

#endif
