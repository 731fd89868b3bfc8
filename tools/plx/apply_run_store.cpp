// What `plx apply` asks of the store before and after it writes: to be there, the lock, the copy of the policy before.
// See apply_run.hpp.
#include "apply_run.hpp"

#include "output.hpp"
#include "record_options.hpp"

#include <algorithm>
#include <csignal>
#include <tq_mom.h>

namespace plx::tool {

// What may pass when a server starts or comes back. A refusal does not.
bool ApplyRun::may_pass(int result)
{
    return result == TQ_MOM_DISCONNECTED || result == TQ_MOM_TIMEOUT || result == TQ_MOM_LOADING;
}

bool ApplyRun::make_context()
{
    if (loop_ == nullptr)
        loop_.reset(tq_loop_new());
    if (loop_ != nullptr && context_ == nullptr)
        context_.reset(tq_context_new_on(options_.store.c_str(), loop_.get()));
    return context_ != nullptr;
}

int ApplyRun::open_store()
{
    if (!make_context())
        return tell_no_context(options_.store);
    const int result = connect();
    return result == 0 ? EXIT_DONE : fail_store("store " + shown_address(options_.store), result);
}

// A store that is not there yet is waited for.
int ApplyRun::connect()
{
    const milliseconds give_up = now() + options_.wait();
    int told = 0;
    for (;;) {
        const int result = tq_mom_client_connect_sync(context_.get(), options_.db);
        if (!may_pass(result) || now() >= give_up)
            return result;
        if (result != told)
            say("waiting for the store " + shown_address(options_.store) + ": " + tq_mom_strerror(result));
        told = result;
        turn(give_up);
    }
}

// A store that stood still for longer than a call waits has perhaps not gone away: it is asked once more when it
// answers.
int ApplyRun::ask(const std::function<int()> &question)
{
    const int result = question();
    return result == TQ_MOM_TIMEOUT && connect() == 0 ? question() : result;
}

// Whether the store knows what the file asks for, which is then not read, as that takes longer than all the rest of
// finding that nothing has changed. A store that is not there is waited for later.
bool ApplyRun::know_file()
{
    if (!options_.changes_only || options_.atomic || options_.dry_run || options_.embedded())
        return false;
    const auto file = digest_of_file(options_.file);
    if (!file || !make_context() || tq_mom_client_connect_sync(context_.get(), options_.db) != 0 ||
        find_file(context_.get(), options_.db, *file, known_) != 0 || !known_)
        return false;
    policy_.application = known_->application;
    return true;
}

// Where the store has not what the file asks for, it is read all the same.
int ApplyRun::compare_known()
{
    if (!known_)
        return EXIT_DONE;
    const int result = ask([&] {
        sum_ = {};
        return policies_->sum(sum_);
    });
    if (result != 0)
        return fail_store("nothing was written: what is there cannot be read: store", result);
    if (sum_.all() == known_->sum && rewritten_before(context_.get(), options_.db, known_->application))
        return EXIT_DONE;
    const std::string locked = known_->application;
    known_.reset();
    if (!read(policy_))
        return EXIT_BAD_FILE;
    return policy_.application == locked ? EXIT_DONE
                                         : fail(EXIT_BAD_FILE, "nothing was written: the file has changed meanwhile");
}

// Without it the file is read the next time.
void ApplyRun::keep_file(const Application &application)
{
    if (policy_.file && !options_.embedded() && !application.store_lost())
        (void)tool::keep_file(context_.get(), options_.db, {*policy_.file, policy_.application, sum_.all()});
}

int ApplyRun::take_lock()
{
    lock_.emplace(context_.get(), options_.db, policy_.application, std::chrono::seconds(options_.lock_s));
    constexpr milliseconds between_tries{250};
    const milliseconds give_up = now() + options_.wait_lock();
    bool told = false;
    for (;;) {
        if (const int result = ask([&] { return lock_->take(); }); result != 0)
            return fail_store("nothing was written: the lock of " + policy_.application, result);
        if (lock_->held())
            return EXIT_DONE;
        if (now() >= give_up && !lock_->next())
            return fail(EXIT_LOCKED,
                        "nothing was written: " + policy_.application + " is being written by " + lock_->other());
        if (!told && !lock_->next())
            say("waiting for " + lock_->other() + ", which writes " + policy_.application);
        told = told || !lock_->next();
        for (const milliseconds next = now() + between_tries; now() < next;)
            turn(next);
    }
}

// An apply that died left its application held: who has the lock now may know that nobody else will end it.
int ApplyRun::take_back_what_was_left()
{
    std::optional<uint32_t> slot;
    if (const int result = ask([&] { return policies_->held(slot); }); result != 0)
        return fail_store("nothing was written: store", result);
    if (!slot)
        return EXIT_DONE;
    holding_ = true;
    return put_back(*slot, "an apply that did not end left its changes behind");
}

// The copy is what a hold keeps nodes to, and what --rollback goes back to. What differs is found on the same walk.
int ApplyRun::keep_policy(Application &application)
{
    if (known_)
        return EXIT_DONE; // there is nothing to change
    const size_t most = options_.atomic ? SIZE_MAX : PolicyStore::most_kept;
    PolicyStore::Copy there(most);
    const bool kept = !options_.embedded() || options_.atomic;
    int result = ask([&] {
        there = PolicyStore::Copy(most);
        if (options_.only_changes())
            return application.compare([&](const ProtobufCMessage &record) { kept ? there.add(record) : void(); });
        return kept ? policies_->read(there) : 0;
    });
    if (result != 0)
        return fail_store("nothing was written: what is there cannot be read: store", result);
    if (!kept || (options_.only_changes() && application.changes().none() && !options_.atomic))
        return EXIT_DONE;
    result = ask([&] { return policies_->keep_before(there, copy_); });
    if (result != 0)
        return fail_store("nothing was written: the policy before cannot be kept: store", result);
    if (!copy_)
        say("what the store holds is too much to be kept: this cannot be rolled back");
    return EXIT_DONE;
}

// Under a hold, so that nodes never see it half put back.
int ApplyRun::put_back(uint32_t slot, const std::string &why)
{
    size_t changes = 0;
    int result = holding_ ? 0 : ask([&] { return policies_->hold(slot); });
    if (result != 0)
        return fail_store("nothing was changed: the copy of the policy before: store", result);
    holding_ = true;
    result = ask([&] { // what the first attempt did is no change for the second
        size_t made = 0;
        const int put = policies_->put_back(slot, made);
        changes = std::max(changes, made);
        return put;
    });
    result = result != 0 ? result : ask([&] { return policies_->release(); });
    if (result != 0)
        return fail_store(
            why + "; the nodes keep to the policy before, but the tables are not put back: apply again: store", result);
    holding_ = false;
    say(why + ": the policy before is put back, " + std::to_string(changes) + " records changed");
    return EXIT_DONE;
}

int ApplyRun::roll_back()
{
    std::optional<uint32_t> before;
    int result = ask([&] { return policies_->kept(before); });
    if (result != 0)
        return fail_store("store", result);
    if (!before)
        return fail(EXIT_USAGE, "the store keeps no policy of " + policy_.application + " to go back to");
    PolicyStore::Copy there(SIZE_MAX);
    result = ask([&] {
        there = PolicyStore::Copy(SIZE_MAX);
        const int read = policies_->read(there);
        return read != 0 ? read : policies_->keep(before, there, copy_);
    });
    if (result != 0)
        return fail_store("nothing was written: store", result);
    nodes_.emplace(context_.get(), options_.db);
    const auto follow = [&] { return nodes_->follow(policy_.application, [](auto &&...) {}); };
    try {
        if (result = ask(follow); result != 0)
            return fail_store("nothing was written: store", result);
        wait_for_life(nodes_->recorded(), milliseconds(0), [this] { return nodes_->alive().size(); });
        if (const int code = put_back(*before, "rolled back"); code != EXIT_DONE)
            return code;
        result = ask([&] { return policies_->set_kept(*copy_); });
        if (result != 0)
            fail_store("rolled back, but this cannot be taken back by going back once more: store", result);
        wait_for_policy_before();
    } catch (const Interrupted &) {
        return stop_->signal() == SIGINT ? EXIT_INTERRUPTED : EXIT_TERMINATED;
    }
    const int code = tell_missing_nodes() ? EXIT_NO_ANSWER : EXIT_DONE;
    return result != 0 ? EXIT_UNREACHABLE : code;
}

} // namespace plx::tool
