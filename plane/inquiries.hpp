// Questions about what is in a node's plane: it is read for each, so that the answer holds whatever the node believes.
//
// A question and its answer are bounded: sums over 256 parts, or the entries of a few parts. Answers are the asker's to
// delete; what is left after a minute goes. An answer that the store does not take is made anew, for as long.
#pragma once

#include "plane/plane.hpp"
#include "plane/report.hpp"
#include <deque>
#include <functional>
#include <plx/plx_node.pb-c.h>
#include <set>
#include <tq_mom.h>

namespace plx::plane {

class Inquiries {
  public:
    // What the node has refused of an application.
    using Refused = std::function<std::vector<std::pair<Key, Standing>>(const std::string &app)>;
    // What the plane would refuse of its tables; nullopt when these cannot be read.
    using Trial = std::function<std::optional<std::vector<std::pair<Key, Standing>>>(const std::string &app)>;

    // The context and the plane outlive it. `node` is the node's name, by which it is asked; `before_writing` ends what
    // else is on its way into the store.
    Inquiries(tq_context *context, uint32_t db, std::string node, Plane &plane, Refused refused, Trial trial,
              std::function<void()> before_writing);

    // Hears of questions from now on, and deletes answers of a node before. The store client's result.
    int start();

  private:
    struct Question {
        uint64_t nonce = 0;
        std::string app;
        std::set<uint32_t> parts;
        bool trial = false;
        milliseconds heard{0};
    };
    struct Answered {
        uint64_t nonce;
        uint32_t number;
        milliseconds until;
    };
    struct Answer;
    struct Answers;

    static int32_t on_question(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_old_answer(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    void answer();
    void read(const Question &question, Answers &answers);
    void try_out(const Question &question, Answers &answers);
    bool send(Answer &answer, uint64_t nonce, uint32_t number, uint32_t records);
    void remove(uint64_t nonce, uint32_t number);
    void forget();

    tq_context *context_;
    uint32_t db_;
    std::string node_;
    Plane &plane_;
    Refused refused_;
    Trial trial_;
    std::function<void()> before_writing_;
    std::deque<Question> questions_;
    std::deque<Answered> answered_; // in the order of time
    Timer answer_timer_, forget_timer_;
};

} // namespace plx::plane
