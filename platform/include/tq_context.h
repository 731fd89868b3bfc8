/* tq_context.h: what applications of this platform pass to the library as g_ssd_fp_global. */
#ifndef TQ_CONTEXT_H
#define TQ_CONTEXT_H

#include "tq_time.h"

#ifdef __cplusplus
extern "C" {
#endif

struct tq_mom_client;

/* Made by the functions below alone. An application reads `master`, to run the loop (tq_loop.h), and hands the whole to
 * the library and to the store client. */
typedef struct tq_context {
    /* The store client (tq_mom.h). */
    struct tq_mom_client *mom;
    /* The event loop: the library finds it as the second member of whatever context it is given. */
    tq_thread_master *master;
} tq_context;

/* A context with a loop of its own and a store client that connects on first use. `store_url` is "mem:" or "mem:NAME"
 * for the embedded store, shared by name between the contexts of one thread, or the address of a server: "unix:/path",
 * "redis://[user[:password]@]host[:port]", with TLS "rediss://...?ca=FILE". NULL: the environment's PLX_STORE, else
 * "mem:". NULL is returned, with errno set, when the address is malformed (EINVAL), memory is short (ENOMEM) or too few
 * descriptors are left (EMFILE, ENFILE). */
tq_context *tq_context_new(const char *store_url);

/* The same on a loop that stays the caller's, so that several contexts (say, an application and the service nodes
 * beside it) live on one loop. The loop outlives the context. */
tq_context *tq_context_new_on(const char *store_url, tq_thread_master *master);

/* Ends the subscriptions of the context and the store client's watches, and frees the loop that tq_context_new() made.
 * NULL is accepted. Not from inside a callback of this context. */
void tq_context_free(tq_context *context);

#ifdef __cplusplus
}
#endif

#endif
