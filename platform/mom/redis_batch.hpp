// Script calls that go to the server together and are answered together.
//
// Owned by the engine. Each command's place is remembered, so that those which met a server that had forgotten the
// script are sent again once it has it.
#ifndef TQ_MOM_REDIS_BATCH_HPP
#define TQ_MOM_REDIS_BATCH_HPP

#include "redis_scripts.hpp"

namespace mom {

class command_batch {
  public:
    /// Where to build the next command.
    command_buffer &next();
    bool full() const { return starts_.size() >= 256; }
    bool empty() const { return starts_.empty(); }
    /// Sends all, waits for the answers, appends the result of each, and is empty again. Whether all succeeded.
    bool send(redis_link &link, redis_scripts &scripts, std::vector<int> &results);

  private:
    using places = std::vector<size_t>;
    places exchange(redis_link &link, const places &which, int *results) const;
    std::string_view command(size_t index) const;

    command_buffer commands_;
    std::vector<size_t> starts_;
};

} // namespace mom

#endif
