/* plx/bulk.h: many writes at a time.
 *
 * One by one, each set_ace and set_apply waits for the store. Between plx_bulk_begin() and plx_bulk_end() they are
 * collected and go to the store together, 256 at a time, which costs a quarter and less, and on a store that keeps each
 * write on disk before it answers a small part:
 *
 *     plx_bulk_begin(context);
 *     for (...)
 *         mgr->set_ace(context, &key, ace);       0: collected; what the store says is told by the callbacks
 *     if (plx_bulk_end(context) != 0) ...         some failed; each was told through its fail callback
 *
 *  1. set_ace, delete_ace, set_apply and del_apply are collected: such a call returns 0 as soon as the cache has it.
 *     What is refused before the store is asked is told at once, as ever: -4, -7, -2, and a store that cannot be
 *     reached.
 *  2. What the store says comes later, through the callbacks that the call itself would have run: ace_fail_cb,
 *     apply_fail_cb, and ace_reply_ok_cb of an entry that needs no confirmation. They run inside plx_bulk_flush(),
 *     plx_bulk_end(), or an operation that finds the bracket full; and from the loop's request check where a bracket is
 *     left open. Register the fail callbacks: without them only the results of flush and end tell that something
 *     failed.
 *  3. Each call has one outcome. A write that the store refused leaves the cache, as it does outside a bracket. One
 *     that was deleted or set again before its result came has none of its own. Where there is no memory to wait for
 *     the forwarding plane's answer, ace_fail_cb or apply_fail_cb is told -2; the record is in the store then.
 *  4. Every other operation settles what is collected first, then works as always. So do reads.
 *  5. Callbacks that run from here may call any operation; what they call goes to the store at once. They may not
 *     begin, flush or end: -4.
 *  6. set_apply reads the class of an ACL once in a bracket, again after set_acl, del_acl or plx_bulk_flush().
 *  7. A bracket takes one block of some 40 KB, and no more however many calls it sees.
 *  8. On a platform whose store client has no batches (tq_mom.h), calls in a bracket go to the store one by one, with
 *     the same callbacks. The application's code is the same.
 *  9. The application's own writes through the store client (tq_mom.h) have no place between a collected call and its
 *     settling. Nor have tq_mom_batch_begin() and tq_mom_batch_end() around operations of the manager's table: these
 *     refuse to write then, with the store client's code 1, since nobody would learn of a failure.
 */
#ifndef PLX_BULK_H
#define PLX_BULK_H

#include <plx/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Begins a bracket on this context. 0; -2; -4 for a null context, inside another bracket, and inside a callback that a
 * bracket runs. No callback runs. */
int32_t plx_bulk_begin(void *g_ssd_fp_global);

/* Sends what is collected, waits for the store's answers and runs the callbacks. Call it before running the event
 * loop. The first failure of these, or 0: a code of the store client, or -2. -4 as plx_bulk_end(). */
int32_t plx_bulk_flush(void *g_ssd_fp_global);

/* The same, and ends the bracket. The first failure since its beginning, of calls that were refused at once, too; or 0.
 * -4 without a bracket on this context, and inside a callback that a bracket runs: nothing happens then. */
int32_t plx_bulk_end(void *g_ssd_fp_global);

#ifdef __cplusplus
}
#endif

#endif
