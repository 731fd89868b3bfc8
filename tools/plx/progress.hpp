// A line that is written over while things go on, on a terminal; nothing elsewhere.
#pragma once

#include "records/host.hpp"
#include <iostream>
#include <unistd.h>

namespace plx::tool {

class Progress {
  public:
    ~Progress() { clear(); }

    // `text` is asked for when it is shown.
    template <typename Text> void show(Text &&text)
    {
        if (!terminal_ || now() < next_)
            return;
        next_ = now() + milliseconds(100);
        std::cerr << "\r\x1b[K" << text() << std::flush;
        shown_ = true;
    }

    void clear()
    {
        if (shown_)
            std::cerr << "\r\x1b[K" << std::flush;
        shown_ = false;
    }

  private:
    bool terminal_ = isatty(STDERR_FILENO) == 1;
    bool shown_ = false;
    milliseconds next_{0};
};

} // namespace plx::tool
