/* A service node and an application that lie: there is a record and a report of it, and a debug shell, and every
 * question is answered with what nobody would say. With an argument it shows the life of so many more nodes. */
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <ssat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>

enum { DB = 8, SUMS = 300 };
static char noise[5000];

static void answer(void *handle, const PlxNode__NodeQuery *query, char *node, uint32_t number, uint32_t records)
{
    PlxNode__NodeSum sum = PLX_NODE__NODE_SUM__INIT, *sums[SUMS];
    PlxNode__NodeEntry entry = PLX_NODE__NODE_ENTRY__INIT, *entries[] = {&entry, &entry};
    PlxNode__NodeAnswerIndex index = PLX_NODE__NODE_ANSWER_INDEX__INIT;
    PlxNode__NodeAnswer told = PLX_NODE__NODE_ANSWER__INIT;
    size_t i;
    for (i = 0; i < SUMS; ++i)
        sums[i] = &sum;
    sum.count = UINT64_MAX;
    entry.name = entry.text = noise;
    entry.key = query->n_parts != 0 ? (uint64_t)query->parts[0] << 56U : 0;
    index.nonce = query->nonce;
    index.node = node;
    index.number = number;
    told.index = &index;
    told.records = records;
    told.sums = sums;
    told.n_sums = query->n_parts == 0 ? SUMS : 0;
    told.entries = entries;
    told.n_entries = 2;
    tq_mom_set_sync(handle, DB, &told.base);
}

static int32_t on_query(void *handle, const tq_mom_notification *told, void *arg)
{
    char liar[] = "0/9/0", nobody[] = "\033[2J//";
    const PlxNode__NodeQuery *query = (const PlxNode__NodeQuery *)told->record;
    (void)arg;
    if (told->event != TQ_MOM_EVENT_PUBLISHED || query == NULL)
        return 0;
    answer(handle, query, nobody, 0, 1);
    answer(handle, query, liar, 0, UINT32_MAX);
    answer(handle, query, liar, 7, 1);
    answer(handle, query, liar, 0, 1);
    return 0;
}

static int on_digest(int argc, const ssat_value *argv)
{
    (void)argc, (void)argv;
    (void)puts("0 1 1 1\n1 2 nothing");
    return fflush(stdout);
}

int main(int argc, char **argv)
{
    tq_context *context = tq_context_new(NULL);
    PlxNode__NodeQuery queries = PLX_NODE__NODE_QUERY__INIT;
    SPolicy__ServiceNodeIndex key = S_POLICY__SERVICE_NODE_INDEX__INIT;
    SPolicy__ServiceNode node = S_POLICY__SERVICE_NODE__INIT;
    PlxNode__NodeReportIndex index = PLX_NODE__NODE_REPORT_INDEX__INIT;
    PlxNode__NodeReport report = PLX_NODE__NODE_REPORT__INIT;
    PlxNode__NodeEntry refusal = PLX_NODE__NODE_ENTRY__INIT, *refusals[] = {&refusal};
    uint32_t ports[] = {UINT32_MAX, 5};
    memset(noise, '\033', sizeof noise - 1);
    if (ssat_lib_init(context, "liar.plx") != 0 ||
        ssat_reg_mod_cmd("liar.plx", "plx_cache_digest", 0, "app_type=%s, part=%d, $n", on_digest) != 0)
        return 1;
    if (context == NULL || tq_mom_client_connect_sync(context, DB) != 0 ||
        tq_mom_subscribe(context, DB, &queries.base, 0, on_query, NULL) != 0)
        return 1;
    key.slot = index.slot = 9;
    node.index = &key;
    report.index = &index;
    report.plane = refusal.name = refusal.app = refusal.text = noise;
    report.time_ms = report.entries = report.backlog = UINT64_MAX;
    report.refused = 1;
    report.ports = ports;
    report.n_ports = 2;
    report.refusals = refusals;
    report.n_refusals = 1;
    if (tq_mom_set_sync(context, DB, &node.base) != 0 || tq_mom_set_sync(context, DB, &report.base) != 0)
        return 1;
    (void)tq_mom_batch_begin(context);
    for (key.dev = argc > 1 ? (uint32_t)atoi(argv[1]) : 0; key.dev > 0; --key.dev)
        (void)tq_mom_set_sync(context, DB, &node.base);
    if (tq_mom_batch_end(context, NULL, 0) != 0)
        return 1;
    (void)fprintf(stderr, "ready\n");
    return tq_loop_run(context->master);
}
