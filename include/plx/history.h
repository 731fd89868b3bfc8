/* plx/history.h: a policy store that has lost what was written to it.
 *
 * A store that comes back empty, that is emptied, or that comes back with older data, has another history than the one
 * that the library wrote. What the cache holds may not be in the store then, and nobody else knows it. Service nodes
 * keep what they have programmed for a while, so that the application can write its policy again:
 *
 *     static void on_history(void *context) { write_all(context); }
 *     ...
 *     plx_set_history_cb(on_history);
 *
 * write_all() is what the application does at its start: expire, set everything, del_expire.
 */
#ifndef PLX_HISTORY_H
#define PLX_HISTORY_H

#include <plx/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Runs from the event loop, a tenth of a second after the library has heard of it: once, however many tables tell. It
 * may call any operation. */
typedef void (*plx_history_cb)(void *g_ssd_fp_global);

/* Has the callback told from now on; null: nobody. The library reports such a loss at Error level in any case. It hears
 * of it through its subscriptions to changes and to answers: an application without acl_change_cb, ace_change_cb,
 * ace_fail_cb and apply_fail_cb does not. */
void plx_set_history_cb(plx_history_cb cb);

#ifdef __cplusplus
}
#endif

#endif
