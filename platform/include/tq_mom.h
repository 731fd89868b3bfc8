/* tq_mom.h: the policy store client.
 *
 * The store holds protobuf records in numbered databases. The client knows no record type: a message's descriptor gives
 * the table (the message's name), the record's key (the message in the field named `index`; a record without one is the
 * only record of its table) and one byte string per value field.
 *
 * Conventions
 *  1. `handle` is the application's context (tq_context.h). `db` is the database number.
 *  2. Functions that return int return 0 on success and a non-zero code otherwise (enum tq_mom_result);
 * tq_mom_strerror() has a text for each.
 *  3. The calls named _sync block until the store has answered, for a bounded time. While the store is away they fail
 *     at once between paced reconnection attempts.
 *  4. Records handed in are copied and may be freed after the call. Records handed to a callback live until it returns.
 *  5. Callbacks of tq_mom_subscribe run from the event loop only, never from inside a call into the store client.
 *     Callbacks of tq_mom_scan_sync run before the scan returns. Both may call any function of this header. An exception
 *     that one lets out ends there; a scan then calls it no more, and fails.
 *  6. One thread: the client takes no lock.
 */
#ifndef TQ_MOM_H
#define TQ_MOM_H

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a notification tells. The record's fields decide the code of a change: a record that answers a request (it has
 * `rep_uuid`) is a status, one that makes a request (it has `req_uuid`) is requested state, any other is a publication.
 */
enum tq_mom_event {
    TQ_MOM_EVENT_STATUS = 1,     /* a status record was written */
    TQ_MOM_EVENT_DELETED = 3,    /* a record of any table was deleted */
    TQ_MOM_EVENT_SET = 4,        /* a requested-state record was written; also every entry of a scan */
    TQ_MOM_EVENT_PUBLISHED = 24, /* a record that neither requests nor answers was written */
    TQ_MOM_EVENT_RESYNC = 29     /* changes may have been missed: scan the table again; no record */
};

typedef struct tq_mom_notification {
    int32_t event;                  /* enum tq_mom_event */
    const ProtobufCMessage *record; /* decoded record; only the key is filled for a deletion; NULL when absent */
    int32_t result;                 /* non-zero: the record could not be read */
    int32_t flag;                   /* 1: the change was written through this same handle (an echo) */
} tq_mom_notification;

/* The result is ignored. */
typedef int32_t (*tq_mom_callback)(void *handle, const tq_mom_notification *notification, void *arg);

typedef struct tq_mom_hash_res {
    int32_t status;           /* non-zero: the read failed */
    ProtobufCMessage *record; /* NULL: no such record */
} tq_mom_hash_res;

/* Connects the handle to a database. A handle that was never connected connects itself at its first call. */
int tq_mom_client_connect_sync(void *handle, uint32_t db);

/* 0 while connected, non-zero otherwise. `reserved` is 0. */
int tq_mom_state_get(void *handle, uint32_t db, int reserved);

/* Creates the record if absent and sets exactly the value fields whose numbers are listed; other fields, also those
 * that this reader's schema does not know, keep what the store holds. */
int tq_mom_hmset_sync(void *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                      uint32_t count);

/* Writes the whole record, replacing what the store holds. */
int tq_mom_set_sync(void *handle, uint32_t db, const ProtobufCMessage *record);

/* Reads the record with the key of `record`. NULL when the store could not be asked. Free the result with
 * tq_mom_hash_res_free(), which frees the record too and accepts NULL. */
tq_mom_hash_res *tq_mom_hgetall_sync(void *handle, uint32_t db, const ProtobufCMessage *record);
void tq_mom_hash_res_free(tq_mom_hash_res *res);

/* Deletes the record with the key of `record`. Deleting what is not there succeeds and is no change. */
int tq_mom_del_sync(void *handle, uint32_t db, const ProtobufCMessage *record);

/* Between these two calls the handle's writes and deletions are collected, return 0 when they could be, and go to the
 * store together: at the end, in steps while there are many, and before any other call. The end waits for all answers
 * and returns 0 or the first failure. `results`, when not NULL, has room for `count` of them and receives in turn the
 * result of each call that was collected; TQ_MOM_DISCONNECTED and TQ_MOM_TIMEOUT leave open whether the store has it.
 * For who writes many records at a time: one waiting instead of one for each. tq_mom_batch_send() sends what is
 * collected without waiting for the answers, which are then taken later: at the end, when many are out, or before any
 * other call. */
int tq_mom_batch_begin(void *handle);
void tq_mom_batch_send(void *handle);
int tq_mom_batch_end(void *handle, int *results, uint32_t count);

/* Calls `cb` once for each record whose first `selection` key fields equal those of `record`; 0 selects the table. A
 * record that cannot be decoded is delivered without a record and with a non-zero result. */
int tq_mom_scan_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg);

/* Calls `cb` from the event loop for every later change of a selected record: each change once, in the order of the
 * table's change log. Between tables there is no order, but for a table of publications that the handle subscribed to
 * before any other: a change of another table comes behind the publications that were written before it. Subscribing
 * again with the same arguments succeeds and changes nothing. Subscriptions end with the context. */
int tq_mom_subscribe(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg);

/* Begins a rewrite of the selected records. `bound` is its time limit in seconds; a later begin with the same selection
 * replaces the mark. */
int tq_mom_dsbegin_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint64_t bound);

/* Ends it: deletes the selected records that nobody has written since the mark, each a change like any other. `bound`
 * is the time limit of the deletion itself, in milliseconds. Without a mark, or after the mark's time ran out, nothing
 * is deleted and the call fails. */
int tq_mom_dsend_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint32_t bound);

enum tq_mom_result {
    TQ_MOM_OK = 0,
    TQ_MOM_INVALID = 1, /* null argument, unknown field, selection beyond the key, message without a descriptor */
    TQ_MOM_NO_MEMORY = 2,
    TQ_MOM_DISCONNECTED = 3,  /* the store cannot be reached */
    TQ_MOM_TIMEOUT = 4,       /* no answer in time; the outcome of a write is unknown */
    TQ_MOM_NO_MARK = 5,       /* end of a rewrite without a begin, or after its time ran out */
    TQ_MOM_CORRUPT = 6,       /* what the store holds under this key is not such a record */
    TQ_MOM_DENIED = 7,        /* the store refuses this user the operation */
    TQ_MOM_READ_ONLY = 8,     /* the server is a replica */
    TQ_MOM_LOADING = 9,       /* the server is reading its data back */
    TQ_MOM_STORE_FULL = 10,   /* the server is out of memory */
    TQ_MOM_STORE_ERROR = 11,  /* any other refusal of the server */
    TQ_MOM_BAD_ANSWER = 12,   /* the server's answer makes no sense: a walk over a table that does not go forward */
    TQ_MOM_NO_DESCRIPTOR = 13 /* the process may open no further file, and a subscription needs one */
};

/* A short text for a result code; never NULL. */
const char *tq_mom_strerror(int result);

#ifdef __cplusplus
}
#endif

#endif
