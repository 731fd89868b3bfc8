/* plx/diag.h: the diagnostic channel's switches, the debug commands, and the operation log.
 *
 * The channel. Every message has a level: Error, Impt (important), Notice or Detail. It goes to standard output when
 * its bit of fp_udp_debug_sw is set, and to the system log when g_policy_plx_zlog_level reaches it; one does not depend
 * on the other. At load nothing is printed, and errors are logged once plx_initial() has opened the log.
 *
 * The debug commands, in the debug shell "<process name>.fp" (`plx shell` runs them; so does any client of the shell):
 *
 *     fp_udp_set_sw dbg_flags=HEX             sets fp_udp_debug_sw; prints nothing
 *     fp_udp_debug_on                         sets all nine bits of lib_plx_dbg_flag; prints nothing
 *     fp_udp_debug_off                        clears them; prints nothing
 *     fp_udp_debug_save                       writes the switch to the file lib_plx_debug_path; registration reads it
 *     fp_udp_debug_show                       "debug_sw:511.", the switch in decimal
 *     fp_udp_dump_acl app_type=TYPE acl_id=N  the cached ACLs with their ACEs and applies: status, identifier, whether
 *                                             the outcome was told (is_req) and how many nodes confirmed (req_count).
 *                                             TYPE all: every ACL; acl_id 0: every ACL of the type
 *     fp_udp_refer_all_app_type               the registered application types, one a line
 *     fp_udp_dump_service_node                the known service nodes, with the time of their last record, and how many
 *     fp_udp_at_set_zlog_level level=N        sets g_policy_plx_zlog_level, 0 to 5; prints what it did
 *
 * The operation log is a trail of each ACL, ACE and apply operation, one line each with the local time, in text files:
 * /tmp/zlog/udp_fp_log/<process name>.log and its alternate <process name>_1.log. They take turns: when the one in use
 * has passed 5 MiB, the other is emptied and becomes the one in use. So the newest record may be in either, and at
 * least the last 5 MiB are there. It is written while FP_UDP_DEBUG_OP_LOG is set, and not otherwise. Nothing is written
 * where a link, another user's folder, or a file that is not ours alone stands in the way.
 */
#ifndef PLX_DIAG_H
#define PLX_DIAG_H

#include <plx/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of fp_udp_debug_sw. Bits without a name here are set by fp_udp_debug_on, and nothing is tied to them. */
enum fp_udp_debug_bit {
    FP_UDP_DEBUG_IMPT = 0x04,
    FP_UDP_DEBUG_ERROR = 0x08,
    FP_UDP_DEBUG_NOTICE = 0x10,
    FP_UDP_DEBUG_DETAIL = 0x20,
    /* The operation log. */
    FP_UDP_DEBUG_OP_LOG = 0x100
};

/* Which messages go to standard output; 0 at load. Registration sets it to what the save file holds, 0 without one. */
extern uint32_t fp_udp_debug_sw;
/* The bits that fp_udp_debug_on sets and fp_udp_debug_off clears: 0x1 to 0x100. */
extern const uint32_t lib_plx_dbg_flag[9];
/* The file that keeps fp_udp_debug_sw across restarts, as a decimal number: "/var/lib_plx_debug.txt" at load. */
extern char lib_plx_debug_path[64];

/* Which messages go to the system log: 0 none, 1 Error, 2 and Impt, 3 or 4 and Notice, 5 and Detail. 1 at load. */
extern uint32_t g_policy_plx_zlog_level;
/* Set by plx_initial(); nothing is logged while it is null. */
extern void *g_policy_plx_zlog_category;

/* Opens the debug shell "<process name>.fp" and adds the library's commands to it. Failures are reported only. */
void fp_udp_at_reg_init(void *context);

/* Sets g_policy_plx_zlog_level; a level above 5 is refused. Prints what it did. 0. */
int32_t fp_udp_at_set_zlog_level(uint32_t level);

/* Writes the process's name, at most 99 characters, to `buffer` (100 bytes). 0, also when the name's file cannot be
 * opened and the buffer stays as it was; -1 when the file cannot be read, -4 for a null buffer. */
int32_t fp_udp_dbg_get_proc_name(char *buffer);

/* What a record of the operation log is about: its name there follows "acl_", "ace_" or "apply_". SUCCESS and FAIL are
 * the store's answer, not the forwarding plane's. */
enum fp_udp_op {
    FP_UDP_OP_ADD = 0,
    FP_UDP_OP_DEL = 1,
    FP_UDP_OP_EXPIRE = 2,
    FP_UDP_OP_DEL_EXPIRE = 3,
    FP_UDP_OP_ITERATE = 4,
    FP_UDP_OP_GET = 5,
    FP_UDP_OP_SUCCESS = 6,
    FP_UDP_OP_FAIL = 7
};

/* Names the log files after the process and makes their directory. 0; -1 when the process has no name or a link is in
 * the way, behind which nothing is kept; or the status of the shell that was to make the directory. */
int32_t fp_udp_op_log_init(void);

/* Append one record while FP_UDP_DEBUG_OP_LOG is set. Every argument but `op` may be NULL: its field is left out. `app`
 * is an application type, `priv` 32 private bytes of which 16 are shown. */
void fp_udp_log_op_acl(const fp_udp_acl_info *acl, const char *app, const uint8_t *priv, uint32_t op);
void fp_udp_log_op_ace(const fp_udp_acl_info *acl, const uint64_t *sn, const char *app, const uint8_t *priv,
                       const uint64_t *ace_pri, uint32_t op);
void fp_udp_log_op_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, const char *app,
                         const uint8_t *priv, uint32_t op);

#ifdef __cplusplus
}
#endif

#endif
