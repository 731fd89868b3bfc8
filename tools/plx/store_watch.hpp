// Tells when the store is lost, and when it is back: for commands that live on.
#pragma once

#include "output.hpp"
#include "records/host.hpp"
#include <tq_mom.h>

namespace plx::tool {

class StoreWatch {
  public:
    // The context outlives it. `tell` says what happened.
    StoreWatch(
        tq_context *context, uint32_t db,
        std::function<void(Grade, const std::string &)> tell =
            [](Grade grade, const std::string &text) { output().log(grade, text); })
        : context_(context), db_(db), tell_(std::move(tell)), timer_(context->master, [this] { look(); })
    {
        timer_.start(between_looks);
    }

  private:
    static constexpr milliseconds between_looks{500};

    void look()
    {
        const bool there = tq_mom_state_get(context_, db_, 0) == 0;
        if (there != there_)
            there ? tell_(Grade::info, "the store is back") : tell_(Grade::warning, "the store is lost");
        there_ = there;
        timer_.start(between_looks);
    }

    tq_context *context_;
    uint32_t db_;
    std::function<void(Grade, const std::string &)> tell_;
    bool there_ = true;
    Timer timer_;
};

} // namespace plx::tool
