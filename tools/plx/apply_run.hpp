// One run of `plx apply`: the store, the lock, the nodes, the policy, and what became of it.
//
// The steps stand in run(). What is waited for is waited for in turns of the event loop, each of which ends the run by
// an exception when a signal asks for it: what was held is then put back.
#pragma once

#include "application.hpp"
#include "apply_lock.hpp"
#include "apply_options.hpp"
#include "nodes/node_watch.hpp"
#include "nodes/questions.hpp"
#include "plane/simulated/fleet.hpp"
#include "policy_store.hpp"
#include "progress.hpp"
#include "signals.hpp"
#include "store_watch.hpp"

namespace plx::tool {

class ApplyRun {
  public:
    explicit ApplyRun(const ApplyOptions &options) : options_(options) {}
    int run();

  private:
    struct Interrupted {};

    int prepare();
    bool know_file();
    int compare_known();
    void keep_file(const Application &application);
    int apply(Application &application);
    bool read(Policy &policy);
    bool read_plan();
    int check_plan();
    int dry_run();
    static bool may_pass(int result);
    bool make_context();
    int open_store();
    int connect();
    int ask(const std::function<int()> &question);
    int take_lock();
    int keep_policy(Application &application);
    int take_back_what_was_left();
    int roll_back();
    int start_nodes();
    size_t wait_for_life(size_t expected, milliseconds longest, const std::function<size_t()> &live);
    int wait_for_nodes(Application &application);
    uint64_t delivered();
    void catch_up();
    int write(Application &application);
    int write_held(Application &application);
    bool nodes_object(Application &application);
    int put_back(uint32_t slot, const std::string &why);
    void wait_for_outcomes(Application &application);
    void wait_for_reports(const Digest &wanted);
    void wait_for_policy_before();
    int report(Application &application, int result);
    int exit_code(Application &application, int result);
    int interrupted(Application &application);
    bool tell_missing_nodes();
    void show_progress(Application &application);
    void turn(milliseconds until);
    void say(const std::string &message);
    int fail(int exit_code, const std::string &message);
    int fail_store(const std::string &what, int result);

    const ApplyOptions &options_;
    Policy policy_;
    uint64_t planned_from_ = 0;      // the state of the store
    std::optional<KnownFile> known_; // the policy's, which was not read
    PolicySum sum_;                  // over what is asked for
    Loop loop_;
    Context context_;
    std::optional<StopOnSignal> stop_;
    std::optional<StoreWatch> store_watch_;
    std::optional<ApplyLock> lock_;
    std::optional<PolicyStore> policies_;
    std::optional<NodeWatch> nodes_;
    std::optional<Questions> questions_;
    std::unique_ptr<plane::Fleet> fleet_;
    Progress progress_;
    milliseconds begun_{0}, next_progress_{0};
    std::optional<uint32_t> copy_; // of what was there before
    bool holding_ = false;
    bool undone_ = false;
    NodeWatch::Names without_; // nodes that do not say that they have what they should
};

} // namespace plx::tool
