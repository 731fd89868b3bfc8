// Whether the cache's tables and lists, the pending requests and the service nodes agree with each other: for the
// library's cases and for the fuzz targets. Walks everything that hangs together and keeps the first thing wrong.
#pragma once

#include <algorithm>
#include <cstring>
#include <plx/libplx.h>
#include <string>
#include <vector>

namespace fake {

struct inspection {
    std::string fault;
    size_t acls = 0, aces = 0, applies = 0;
    std::vector<const void *> waiting; // requests that nodes point at

    void expect(bool right, const char *what)
    {
        if (!right && fault.empty())
            fault = what;
    }

    // The elements of a list whose links agree both ways.
    template <class Element> std::vector<Element *> elements(const fp_udp_list &head)
    {
        std::vector<Element *> found;
        const fp_udp_list *at = &head;
        while (at->next->prev == at && at->next != &head) {
            at = at->next;
            found.push_back(reinterpret_cast<Element *>(const_cast<fp_udp_list *>(at)));
        }
        expect(at->next == &head && head.prev == at, "a list's links");
        return found;
    }

    template <class Node> void node(const fp_udp_acl_node &owner, const Node *n, const Node *in_table, uint8_t type)
    {
        expect(n->acl.acl_id == owner.acl.acl_id && !strcmp(n->acl.app_type, owner.acl.app_type), "a node's ACL");
        expect(in_table == n, "a listed node is not the table's");
        if (!n->req)
            return;
        expect(n->req->node == n && n->req->type == type, "a request of another node");
        waiting.push_back(n->req);
    }

    void acl(const fp_udp_acl_node *owner)
    {
        acls++;
        expect(fp_udp_acl_node_hash_find(owner) == owner, "an ACL is not the table's");
        const auto listed = elements<fp_udp_ace_node>(owner->ace_list);
        const auto bound = elements<fp_udp_apply_node>(owner->apply_list);
        expect(owner->ace_count == listed.size(), "an ACL's count of entries");
        for (const fp_udp_ace_node *n : listed)
            node(*owner, n, fp_udp_ace_node_hash_find(n), FP_UDP_REQ_ACE);
        for (const fp_udp_apply_node *n : bound)
            node(*owner, n, fp_udp_apply_node_hash_find(n), FP_UDP_REQ_APPLY);
        aces += listed.size();
        applies += bound.size();
    }

    template <class Table> void table(const Table *table, size_t listed)
    {
        if (!table)
            return;
        uint32_t stored = 0, occupied = 0;
        for (uint32_t i = 0; i < table->n_buckets; i++) {
            const uint32_t bits = table->flags[i / 16] >> 2 * (i % 16) & 3;
            stored += bits == 0;
            occupied += !(bits & 2);
        }
        expect(table->size == stored && table->n_occupied == occupied && occupied <= table->upper_bound,
               "a table's counts");
        expect(stored == listed, "a table's size");
    }

    void requests()
    {
        std::vector<const void *> pending;
        for (const fp_udp_req_node *request : elements<fp_udp_req_node>(g_req_para.pending))
            pending.push_back(request);
        std::sort(pending.begin(), pending.end());
        std::sort(waiting.begin(), waiting.end());
        expect(pending == waiting, "the pending list is not the nodes' requests");
    }
};

// "" when all is well.
inline std::string first_fault()
{
    inspection all;
    fp_udp_acl_node_hash_traverse(
        [](fp_udp_acl_node *node, void *arg) {
            static_cast<inspection *>(arg)->acl(node);
            return 0;
        },
        &all);
    all.table(fp_udp_acl_node_list, all.acls);
    all.table(fp_udp_ace_node_list, all.aces);
    all.table(fp_udp_apply_node_list, all.applies);
    all.requests();
    const size_t alive = all.elements<fp_udp_service_node>(g_fp_service.nodes).size();
    all.expect(alive == static_cast<size_t>(g_fp_service.count), "the count of service nodes");
    return all.fault;
}

} // namespace fake
