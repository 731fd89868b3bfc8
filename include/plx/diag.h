/* plx/diag.h: the diagnostic channel's switches, the debug commands, and the operation log. */
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
    FP_UDP_DEBUG_OP_LOG = 0x100 /* the operation log */
};

extern uint32_t fp_udp_debug_sw;           /* which messages go to standard output; 0 at load */
extern const uint32_t lib_plx_dbg_flag[9]; /* the bits that fp_udp_debug_on sets and fp_udp_debug_off clears */
extern char lib_plx_debug_path[64];        /* the file that keeps fp_udp_debug_sw across restarts */

/* Which messages go to the system log: 0 none, 1 Error, 2 and Impt, 3 or 4 and Notice, 5 and Detail. 1 at load. */
extern uint32_t g_policy_plx_zlog_level;
extern void *g_policy_plx_zlog_category; /* set by plx_initial(); nothing is logged while it is null */

/* Opens the debug shell "<process name>.fp" and adds the library's commands to it. Failures are reported only. */
void fp_udp_at_reg_init(void *context);

/* Sets g_policy_plx_zlog_level; a level above 5 is refused. Prints what it did. 0. */
int32_t fp_udp_at_set_zlog_level(uint32_t level);

/* Writes the process's name, at most 99 characters, to `buffer` (100 bytes). 0, also when the name's file cannot be
 * opened and the buffer stays as it was; -1 when the file cannot be read. */
int32_t fp_udp_dbg_get_proc_name(char *buffer);

/* What a record of the operation log is about. */
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

/* Names the log files after the process and makes their directory. 0, -1, or the status of the shell that was to make
 * it. */
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
