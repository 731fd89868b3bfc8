// The bound on repeated messages: twenty of one kind within a second, then a count of the rest.
//
// Asked before each message goes to the log, by zlog.cpp. It needs neither a timer nor a thread: what a second held
// back is handed out when it is asked for next, or at the end of the process. Not safe for threads by itself.
#ifndef TQ_ZLOG_REPEATS_HPP
#define TQ_ZLOG_REPEATS_HPP

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zlog_limit {

/// One message: where it goes, where it came from and what it says.
struct message {
    const void *category;
    std::string_view file, func;
    long line;
    int level;
    std::string_view text;
};

/// A message that was held back, kept whole but for the ends of long texts, and how often.
class held_message {
  public:
    void keep(const message &kept);
    message get() const;
    uint64_t times = 0;

  private:
    message of_{};
    std::array<char, 64> file_, func_;
    std::array<char, 160> text_;
};

class repeats {
  public:
    /// Whether the message may go out now. `told` receives what had to make room for it.
    bool admit(const message &said, uint64_t now_ms, std::optional<held_message> &told);
    /// One of those whose second is over, until there is none.
    std::optional<held_message> over(uint64_t now_ms);
    uint64_t held_back() const { return held_back_; }

  private:
    struct slot {
        uint64_t key = 0;
        uint64_t start_ms = 0;
        unsigned seen = 0;
        held_message held;
    };
    std::array<slot, 32> slots_;
    uint64_t held_back_ = 0;
};

} // namespace zlog_limit

#endif
