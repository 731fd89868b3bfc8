// Walking the pending requests, and taking one out.
#pragma once

#include "../list.hpp"

#include <plx/request.h>

namespace plx::req {

// A request as it is allocated: the exported part, the number of the newest pass when it was added or refreshed, and a
// bit for each node that has confirmed since.
struct numbered_request {
    fp_udp_req_node request;
    uint64_t pass;
    uint64_t confirmed;
};

// One pass over the requests that are pending when it starts. Passes nest when a callback starts another.
class pending_walk {
  public:
    pending_walk() : next_(g_req_para.pending.next), last_(g_req_para.pending.prev), outer_(innermost_)
    {
        number_ = ++begun_;
        done_ = list::empty(g_req_para.pending);
        innermost_ = this;
    }
    ~pending_walk() { innermost_ = outer_; }
    pending_walk(const pending_walk &) = delete;
    pending_walk &operator=(const pending_walk &) = delete;

    fp_udp_req_node *next()
    {
        if (done_)
            return nullptr;
        fp_udp_list *at = next_;
        pass_over(at);
        return reinterpret_cast<fp_udp_req_node *>(at);
    }

    // True for what a callback has added or refreshed since this pass began.
    bool precedes(const fp_udp_req_node &request) const
    {
        return reinterpret_cast<const numbered_request &>(request).pass >= number_;
    }

    static void stamp(fp_udp_req_node &request)
    {
        reinterpret_cast<numbered_request &>(request).pass = begun_;
        reinterpret_cast<numbered_request &>(request).confirmed = 0;
    }

    // Every walk steps off a request that is about to leave the list.
    static void leave(fp_udp_list &links)
    {
        for (pending_walk *walk = innermost_; walk != nullptr; walk = walk->outer_)
            walk->pass_over(&links);
    }

  private:
    void pass_over(const fp_udp_list *at)
    {
        if (at == next_ && at == last_)
            done_ = true;
        else if (at == next_)
            next_ = next_->next;
        else if (at == last_)
            last_ = last_->prev;
    }

    fp_udp_list *next_;
    fp_udp_list *last_;
    bool done_;
    uint64_t number_;
    pending_walk *outer_;
    static inline uint64_t begun_ = 0; // passes, in the process's life
    static inline pending_walk *innermost_ = nullptr;
};

// What is done before each ageing pass, or null: requests that are about to be added come first.
using pass_hook = void (*)();
extern pass_hook before_pass;

// Takes a request out of the list, off its node and off every walk, and frees it.
void detach(fp_udp_req_node *request);

} // namespace plx::req
