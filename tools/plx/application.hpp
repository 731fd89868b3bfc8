// A policy's way through libplx: plx as an application like any other, with the public interface alone.
//
// There is one Application at a time, since the library keeps one table of callbacks for the process. The callbacks
// only note outcomes in the ledger.
#pragma once

#include "ledger.hpp"
#include "node_answers.hpp"
#include "policy.hpp"
#include "policy_rows.hpp"
#include "policy_sum.hpp"
#include "store_difference.hpp"
#include <functional>
#include <map>
#include <optional>
#include <plx/libplx.h>
#include <tq_context.h>
#include <tq_mom.h>

namespace plx::tool {

class Application {
  public:
    // The context and the policy outlive the application.
    Application(tq_context *context, uint32_t db, const Policy &policy);
    ~Application();
    Application(const Application &) = delete;
    Application &operator=(const Application &) = delete;

    // Registers with the library, also once more. 0, or the library's code; or a time-out, where one of the
    // subscriptions ran into one.
    int start();

    // Rewrites the policy: everything in it is written, then what else the store holds of this application type is
    // deleted; not so when the store went away, as the deletion could take the last good version with it. `pause` is
    // called now and then, to run the event loop. What the store did not answer in time is done once more, when `again`
    // says that it answers. 0, or the store's code for the beginning of the bracket.
    int write(const std::function<void()> &pause, const std::function<bool()> &again);

    // Reads what the store has, handing each record to `take`, and finds what differs from the policy: what is as it
    // should be is not to be written, and its rows end as unchanged; but all is, where write() was never done in the
    // store's history. 0, or the store's code.
    int compare(const StoreDifference::Take &take) { return difference_.compare(take); }

    // Writes what the store does not have as the policy has it, and deletes what the policy does not have, as compared;
    // or all, as by write(). 0, or the store's code for what could not be deleted.
    int write_changes(const std::function<void()> &pause, const std::function<bool()> &again);

    // That compare() has found.
    using Changes = StoreDifference::Changes;
    const Changes &changes() const { return difference_.changes(); }

    // The application's own commit markers around a write, for nodes that know no hold. They wait for a minute at most.
    int begin_commit();
    void end_commit(bool publish);

    // Service nodes that the library counts as alive.
    static int live_nodes() { return g_fp_service.count; }

    // A write did not reach the store; or, if that was silent, perhaps not.
    bool store_lost() const { return store_lost_ != 0; }
    bool store_silent() const { return store_lost_ == TQ_MOM_TIMEOUT; }

    // The store's code where what it held before was not all deleted, else 0.
    int not_swept() const { return not_swept_; }

    // The store refuses the user.
    bool denied() const { return denied_; }

    // The nodes that live when writing begins: an entry is programmed when as many have confirmed it.
    void expect(std::vector<std::string> nodes) { answers_.expect(std::move(nodes)); }
    // A node's status record, before the library hears of it.
    void answered(const ProtobufCMessage *status, const std::string &node);
    // What a node would refuse, by the digests of keys, and why. True when it is of this policy.
    bool would_refuse(const std::string &node, const std::map<uint64_t, int32_t> &statuses);
    // What waits is not to be made.
    void withhold();
    // Ends what waits, and says whose answers are missing.
    void time_out();
    // Over what the policy asks for.
    PolicySum sum() const { return kept_ ? *kept_ : PolicySum(policy_); }
    // The store was found to have all that is asked for, which adds up to that: there is nothing to write, and the
    // policy need not be known.
    void keep(const PolicySum &there);

    Ledger &ledger() { return ledger_; }

  private:
    using Operation = int32_t (*)(void *context, const char *app_type);

    struct Callbacks;

    void lose_store(int result) { store_lost_ = store_lost_ != 0 ? store_lost_ : result; }
    void remove_surely(const std::function<bool()> &again, const std::function<void()> &remove_all);
    void write_unended(const std::function<void()> &pause, const std::function<bool()> &again);
    void set_unended(const std::function<void()> &breathe);

    int bracket(std::initializer_list<Operation> operations);
    void set(const PolicyAcl &acl);
    void set(const PolicyApply &apply);
    void set(const PolicyAcl &acl, const PolicyEntry &entry, size_t row);
    template <typename Write> void set_row(size_t row, Write &&write);
    using Breathe = std::function<void()>;
    void collect(const std::function<void()> &pause, const std::function<void(const Breathe &)> &write);

    void succeeded(size_t row, int answers);
    void refused(size_t row, int32_t status);

    static Application *current_;

    tq_context *context_;
    uint32_t db_;
    const Policy &policy_;
    fp_udp_mgr *mgr_ = nullptr;
    PolicyRows rows_;
    Ledger ledger_;
    StoreDifference difference_;
    NodeAnswers answers_;
    bool setting_ = false; // inside a set operation: what is told now is the write's own result
    int store_lost_ = 0;   // the store's code
    bool denied_ = false;
    bool timed_out_ = false; // a write did, which is to be made once more
    bool last_try_ = false;
    int not_swept_ = 0;
    int not_removed_ = 0; // the store's code where one of the deletions failed
    std::optional<PolicySum> kept_;
};

} // namespace plx::tool
