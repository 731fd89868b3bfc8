// What a plane keeps although the store does not have it any more, because the store lost it: nobody took it away.
//
// A store that comes back empty, or is emptied, begins a new history of its tables. What is programmed then stays, of
// each table and application, until one of these:
// - the application has written its policy again: it ended a rewrite of the table in the new history;
// - the time is over;
// - an operator has said so (release).
// A node that starts over a plane with entries does not know whose history they are: those of an application of which
// the store has nothing, and which has ended no rewrite, are held, too.
//
// A node owns one, and asks it before it removes what a comparison did not find. A removal that it hears of is the
// application's own, and made at once.
#pragma once

#include "records/host.hpp"
#include "records/record.hpp"
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tq_mom.h>
#include <vector>

namespace plx::plane {

class Hold {
  public:
    // Of a table, by its place in tables(), and an application; "" in a table without.
    using Share = std::pair<size_t, std::string>;
    using Shares = std::map<Share, size_t>; // how many entries
    static Share share_of(const Key &key) { return {key.index(), application_of(key)}; }

    struct Options {
        uint32_t db;
        milliseconds longest; // 0: without end
        milliseconds between_looks;
        std::function<void(const std::string &)> tell; // what an operator should know; may be empty
    };

    // The context outlives it. `again` is called when the tables are to be compared anew, from the event loop.
    Hold(tq_context *context, Options options, std::function<void()> again);

    // Behind a walk over the tables, or over those of an application, and before anything is removed that it did not
    // find. `programmed` counts what is in the plane, where asked so without the shares of which the walk found
    // something. False when the store did not answer, and for an application before the first walk over all.
    [[nodiscard]] bool look(bool whole, const std::function<Shares(bool lost_whole)> &programmed);
    // A record was heard of: the table has a history, whose name is learnt once.
    void heard(const Key &key);
    bool holds(const Key &key) const { return !held_.empty() && held_.contains(share_of(key)); }
    size_t held() const { return held_.size(); } // shares
    void release();

  private:
    using Until = std::optional<milliseconds>; // none: without end

    void take(const Shares &shares);
    void let_go(const std::function<bool(const Share &, const Until &)> &of, const char *why);
    bool written_again(const Share &share) const;
    void watch();

    tq_context *context_;
    Options options_;
    std::function<void()> again_;
    std::vector<uint64_t> histories_; // of the tables, as they were seen last
    std::map<Share, Until> held_;
    Timer timer_;
};

} // namespace plx::plane
