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
 *     Callbacks of tq_mom_scan_sync run before the scan returns. Both may call any function of this header.
 *     An exception that one lets out ends there; a scan then calls it no more, and fails.
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
    /* Changes may have been missed: scan the table again; no record. Of a table of status it comes behind the
     * records that have changed meanwhile, each told once, as it is now; of one of publications those are all. The
     * result TQ_MOM_NEW_HISTORY tells that the store came back empty or older: what was written may be gone. */
    TQ_MOM_EVENT_RESYNC = 29
};

typedef struct tq_mom_notification {
    int32_t event;                  /* enum tq_mom_event */
    const ProtobufCMessage *record; /* decoded record; only the key is filled for a deletion; NULL when absent */
    int32_t result;                 /* non-zero: the record could not be read; of a resynchronisation see there */
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

/* 0 while connected and, with subscriptions, while their changes can be heard; non-zero otherwise. `reserved` is 0. */
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
 * other call. A begin inside another batch of the handle is TQ_MOM_INVALID. tq_mom_batch_open() is 1 while this
 * handle's calls are collected on this thread, else 0; it does not look into the handle. */
int tq_mom_batch_begin(void *handle);
int tq_mom_batch_open(const void *handle);
void tq_mom_batch_send(void *handle);
int tq_mom_batch_end(void *handle, int *results, uint32_t count);

/* Calls `cb` once for each record whose first `selection` key fields equal those of `record`; 0 selects the table. A
 * record that cannot be decoded is delivered without a record and with a non-zero result. */
int tq_mom_scan_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg);

/* The same for who needs to know what is there and not what it says: of each record only the key is filled, and nothing
 * else of it is read. */
int tq_mom_scan_keys_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection,
                          tq_mom_callback cb, void *arg);

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
 * is the time limit of the deletion itself, in milliseconds: where it is not enough the call returns
 * TQ_MOM_UNFINISHED, and the same call goes on from there, also after any other failure. Without a mark, or after the
 * mark's time ran out, nothing is deleted and the call fails. */
int tq_mom_dsend_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint32_t bound);

/* Of which history a table's records are. A store that lost its data, or was emptied, begins a new one. */
typedef struct tq_mom_history {
    uint64_t name;     /* no two are likely to have the same; 0: nobody has written to the table yet */
    int32_t rewritten; /* 1: in this history tq_mom_dsend_sync() has ended a rewrite of this very selection */
} tq_mom_history;

/* Reads it. 0, or the store's code, and `history` is as it was. */
int tq_mom_history_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection,
                        tq_mom_history *history);

/* Every result: its name, its number, what it tells and what an operator can do about it. The codes, their texts and
 * the advice are made from this list alone. */
#define TQ_MOM_RESULTS(RESULT)                                                                                         \
    RESULT(OK, 0, "success", "")                                                                                       \
    /* null argument, unknown field, selection beyond the key, message without a descriptor */                         \
    RESULT(INVALID, 1, "invalid argument", "this is a fault of the program: tell who wrote it")                        \
    RESULT(NO_MEMORY, 2, "out of memory", "free memory on this machine, or raise the process's limit")                 \
    RESULT(DISCONNECTED, 3, "the store cannot be reached",                                                             \
           "see that the server runs and that the store's address is its")                                             \
    /* the outcome of a write is unknown */                                                                            \
    RESULT(TIMEOUT, 4, "no answer in time",                                                                            \
           "see why the server is slow; what was to be written may have been: write it again")                         \
    RESULT(NO_MARK, 5, "no rewrite was begun, or its time ran out", "begin the rewrite anew, with more time")          \
    /* also a record of another schema */                                                                              \
    RESULT(CORRUPT, 6, "what is stored under this key is not such a record",                                           \
           "something else has written there: delete the key and write the record again")                              \
    RESULT(DENIED, 7, "the store refuses this user the operation",                                                     \
           "give the user this right in the server's access list, or take another user")                               \
    RESULT(READ_ONLY, 8, "the store's server is a replica and takes no writes",                                        \
           "give the address of the master, or those of the sentinels")                                                \
    RESULT(LOADING, 9, "the store's server is still loading its data", "wait: it becomes ready by itself")             \
    RESULT(STORE_FULL, 10, "the store's server is out of memory",                                                      \
           "raise the server's maxmemory, or delete what nobody needs")                                                \
    /* any other refusal; also a scan whose callback let an exception out */                                           \
    RESULT(STORE_ERROR, 11, "the store refused the operation",                                                         \
           "the system log has the server's own words, under tq_mom")                                                  \
    /* a walk over a table that does not go forward */                                                                 \
    RESULT(BAD_ANSWER, 12, "the store's answer makes no sense",                                                        \
           "see whether something else writes to the store's tables")                                                  \
    /* a subscription needs one */                                                                                     \
    RESULT(NO_DESCRIPTOR, 13, "no file descriptor is left", "raise the process's limit of open files")                 \
    /* the server does not tell which of the two it is */                                                              \
    RESULT(BAD_LOGIN, 14, "the store knows no such user with this password",                                           \
           "compare user and password of the store's address with the server's access list")                           \
    RESULT(NO_PASSWORD, 15, "the password file cannot be read",                                                        \
           "make it a file with the password as its first line, which this process may read")                          \
    /* of tq_mom_dsend_sync(): some of the records were looked at */                                                   \
    RESULT(UNFINISHED, 16, "the time was not enough, and the same call goes on", "make the same call again")           \
    /* more than 16 MiB */                                                                                             \
    RESULT(TOO_BIG, 17, "the record is too big", "this is a fault of the program: tell who wrote it")                  \
    /* a table's metadata names a format of its change log that this client does not know */                           \
    RESULT(NEWER_FORMAT, 18, "the store's tables are those of a newer release",                                        \
           "install that release here, too: nothing was read or written")                                              \
    /* of TQ_MOM_EVENT_RESYNC alone */                                                                                 \
    RESULT(NEW_HISTORY, 19, "the store came back without what it held", "write everything again")                      \
    /* min-replicas-to-write of the server: nothing was written */                                                     \
    RESULT(NO_REPLICAS, 20, "the store's server has too few replicas to take writes",                                  \
           "see why replicas are missing; until then a failure could lose what it takes")                              \
    /* of a handle whose address asks for replicas; the server has the write */                                        \
    RESULT(NOT_REPLICATED, 21, "too few replicas have confirmed the write in time",                                    \
           "see why replicas are slow or missing; what was written is lost if the server fails now: write it again")   \
    RESULT(TLS_NOT_SPOKEN, 22, "the store's server does not speak TLS there",                                          \
           "give the port on which it does, or an address of redis:// or sentinel://")                                 \
    RESULT(TLS_EXPECTED, 23, "the store's server speaks TLS there", "give an address of rediss:// or sentinels://")    \
    RESULT(CERTIFICATE_EXPIRED, 24, "the server's certificate is not valid at this time",                              \
           "renew it, and see that this machine's clock is right")                                                     \
    RESULT(CERTIFICATE_UNTRUSTED, 25, "the server's certificate is none that this machine trusts",                     \
           "give the issuer's certificate with ca=")                                                                   \
    RESULT(CERTIFICATE_NAME, 26, "the server's certificate is for another name",                                       \
           "take the name that it is for as the store's address, or give it with server-name=")                        \
    /* ca=, cert= or key= */                                                                                           \
    RESULT(CERTIFICATE_FILE, 27, "a file with a certificate or key cannot be used",                                    \
           "the system log says which and why, under tq_mom")                                                          \
    RESULT(TLS_REFUSED, 28, "the store's server refuses the secure connection",                                        \
           "see whether it wants a certificate (cert=, key=); the system log has its reason, under tq_mom")

#define TQ_MOM_RESULT_CODE(name, number, text, advice) TQ_MOM_##name = (number),
enum tq_mom_result {
    TQ_MOM_RESULTS(TQ_MOM_RESULT_CODE)
    /* How many there are. */
    TQ_MOM_RESULT_COUNT
};
#undef TQ_MOM_RESULT_CODE

/* A short text for a result code; never NULL. */
const char *tq_mom_strerror(int result);

/* What an operator can do about it, as one short sentence without an end; NULL where there is nothing to be done. */
const char *tq_mom_advice(int result);

/* What a context's store client has counted since it was made. */
typedef struct tq_mom_counters {
    /* Calls by their result (enum tq_mom_result): all that take a record, and connecting. A write that was collected
     * counts by what came of it at the end of the batch. */
    uint64_t results[TQ_MOM_RESULT_COUNT];
    /* Connections to a server: one for calls, one more with the first subscription; all beyond are reconnections. */
    uint64_t connections;
    /* Notifications that subscriptions were told. */
    uint64_t delivered;
    /* How often changes were lost: a table's change log did not reach back far enough, or was another one. */
    uint64_t losses;
    /* Records told in place of lost changes. Of requested state nothing is told but TQ_MOM_EVENT_RESYNC. */
    uint64_t recovered;
    /* Exceptions that callbacks let out. */
    uint64_t exceptions;
} tq_mom_counters;

/* Fills in the counters of a context. 0, or TQ_MOM_INVALID. */
int tq_mom_counters_get(void *handle, tq_mom_counters *counters);

#ifdef __cplusplus
}
#endif

#endif
