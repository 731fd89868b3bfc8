/* plx/libplx.h: programming access-control policy into a switch's forwarding plane.
 *
 * An application describes ACLs, their entries (ACEs), their binding to ports (applies), port and interface state, and
 * commit markers. The library writes each as a record into the policy store, caches what it wrote, and follows every
 * ACE and apply until the forwarding plane's service nodes have answered. The road, in order:
 *
 *     plx_initial();
 *     fp_udp_register_app_type("my_app");
 *     fp_udp_register_acl_handler(context, db, &handler);
 *     fp_udp_mgr *mgr = fp_udp_get_mgr();
 *     plx_wait_for_nodes(context->master, nodes, 10000, tq_loop_run_once);
 *     mgr->set_acl(context, &acl); mgr->set_apply(context, &info, cls, apply); mgr->set_ace(context, &key, ace);
 *     ... the application's event loop runs, and the handler's callbacks tell each outcome.
 *
 * Conventions
 *  1. Thread. The library creates no thread and takes no lock. Every call is made on the thread of the event loop whose
 *     master is the second member of the context; timers and store notifications run there too.
 *  2. Event loop. Outcomes arrive only while the application runs that loop. Calls that reach the store block until
 *     it has answered, for the time that the store client allows.
 *  3. Context. `g_ssd_fp_global` is the application's: the platform's tq_context (tq_context.h), or a structure
 *     that begins like it. It must outlive the library's use, which ends with the process: there is no shutdown call.
 *  4. Ownership. The library copies what it is given. ACE and apply objects are the application's, made and
 *     freed through the table. What a callback receives lives until the callback returns.
 *  5. Names. An application type is at most 31 characters with its terminator in a 32-byte field. A field without a
 *     terminator is too long a name: -4, and nothing happens.
 *  6. Results. 0 is success, negative codes are enum fp_udp_result, other codes are the store client's or a callback's.
 *     Whether a write reached the store is told by its fail callback: without one several writers return 0 all the same
 *     (manager.h). status.h has texts.
 *  7. Callbacks may call any operation, for any node, the reported one and its ACL included. They must not run
 *     the event loop, and must return normally: no exception, no longjmp.
 *  8. Null arguments, out-pointers included, are refused with -4 unless the operation says otherwise. A null callback
 *     is an event not wanted.
 *  9. Byte order. An attribute's type word and length are the host's, its value is in network byte order as
 *     plx-attributes(7) has it. Private data is the application's own.
 * 10. Not supported: use from several threads, fork() without exec(), unloading the library.
 *
 * Names that begin with plx_ are inline functions of these headers, but for plx_initial() and those of bulk.h,
 *     counters.h and history.h.
 *
 * <plx/s_policy.pb-c.h>, made from the record schema, declares the records and their descriptors, which the library
 * exports.
 */
#ifndef PLX_LIBPLX_H
#define PLX_LIBPLX_H

#include <plx/attribute.h>
#include <plx/bulk.h>
#include <plx/cache.h>
#include <plx/counters.h>
#include <plx/diag.h>
#include <plx/history.h>
#include <plx/manager.h>
#include <plx/request.h>
#include <plx/status.h>
#include <plx/types.h>

#endif
