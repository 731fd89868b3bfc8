// Rules in chains that jump to each other, written out as one list: a jump becomes the rules of its chain, and frames
// that leave a chain early meet there and then all that they would have met behind the jumps that led to it.
#pragma once

#include "import/draft.hpp"

namespace plx::tool::import {

template <typename Rule> class Chains {
  public:
    virtual ~Chains() = default;

  protected:
    using Rules = std::vector<Rule>;

    explicit Chains(Draft &draft) : draft_(draft) {}

    // What the rule does to those of the frames that it matches; takes away what need not meet the next one.
    // False: none is left behind it. Throws Unsaid.
    virtual bool apply(const Rule &rule, Matches &frames) = 0;
    virtual void refuse(const Rule &rule, const std::string &why) = 0;
    // What frames get that no rule decides.
    virtual void decide(const Matches &frames) = 0;

    void walk(const Rules &rules, Matches frames, size_t from = 0)
    {
        if (places_.size() == deepest)
            throw Unsaid("jumps are nested too deeply");
        places_.push_back({&rules, from});
        bool left = true;
        while (left && places_.back().next < rules.size()) {
            const Rule &rule = rules[places_.back().next++];
            const size_t before = draft_.entries();
            try {
                left = apply(rule, frames);
            } catch (const Unsaid &why) {
                draft_.keep(before);
                refuse(rule, why.what());
            }
        }
        places_.pop_back();
    }

    // What `apply` returns of a jump; `all`: without a condition. Frames that go there for good do not come back here.
    bool jump(const Rules &rules, const Matches &frames, bool for_good, bool all)
    {
        const Way way(places_);
        if (for_good)
            places_.back().next = places_.back().rules->size();
        walk(rules, frames);
        if (for_good && !all)
            leave(frames);
        return !for_good || !all;
    }

    // The frames do not meet the rest of this chain.
    void leave(const Matches &frames)
    {
        if (frames.any().empty())
            return;
        if (++left_ > most_left)
            throw Unsaid("chains are left under conditions too often to be written out");
        const size_t impossible = draft_.impossible();
        const Way way(places_);
        places_.pop_back();
        while (!places_.empty()) {
            const Place caller = places_.back();
            places_.pop_back();
            walk(*caller.rules, frames, caller.next);
        }
        decide(frames);
        draft_.set_impossible(impossible); // those rules are counted where they stand
    }

  private:
    static constexpr size_t deepest = 17;    // chains in each other
    static constexpr size_t most_left = 256; // times

    struct Place {
        const Rules *rules;
        size_t next;
    };

    // Puts the places back.
    class Way {
      public:
        explicit Way(std::vector<Place> &places) : places_(places), before_(places) {}
        ~Way() { places_ = before_; }
        Way(const Way &) = delete;
        Way &operator=(const Way &) = delete;

      private:
        std::vector<Place> &places_;
        const std::vector<Place> before_;
    };

    Draft &draft_;
    std::vector<Place> places_;
    size_t left_ = 0;
};

} // namespace plx::tool::import
