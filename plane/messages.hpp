// What repeated and text fields of a record on its way into the store stand on.
#pragma once

#include "records/digest.hpp"
#include <cstddef>
#include <deque>
#include <plx/plx_node.pb-c.h>
#include <string>
#include <vector>

namespace plx::plane {

// A repeated message field: elements that stay where they are, and pointers to them.
template <typename Message> class Repeated {
  public:
    explicit Repeated(void (*init)(Message *)) : init_(init) {}

    Message &add()
    {
        init_(&elements_.emplace_back());
        pointers_.push_back(&elements_.back());
        return elements_.back();
    }

    size_t size() const { return elements_.size(); }

    void put(size_t &count, Message **&field)
    {
        count = pointers_.size();
        field = pointers_.data();
    }

  private:
    void (*init_)(Message *);
    std::deque<Message> elements_;
    std::vector<Message *> pointers_;
};

class Texts {
  public:
    char *keep(std::string text) { return kept_.emplace_back(std::move(text)).data(); }

  private:
    std::deque<std::string> kept_;
};

// Says whose entry it is, and leaves the rest.
inline PlxNode__NodeEntry &add_entry(Repeated<PlxNode__NodeEntry> &entries, Texts &texts, const Key &key)
{
    PlxNode__NodeEntry &entry = entries.add();
    entry.app = texts.keep(application_of(key));
    entry.name = texts.keep(described(key));
    entry.key = digest_of(key);
    return entry;
}

} // namespace plx::plane
