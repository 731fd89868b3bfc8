// Standard output while a command runs: a file in memory, so that what the command prints can be sent to its client
// afterwards at the client's pace. Whatever the application had printed before goes where it belongs.
#ifndef PLX_SSAT_CAPTURE_HPP
#define PLX_SSAT_CAPTURE_HPP

#include "owned_fd.hpp"

#include <cstddef>

namespace ssat {

constexpr size_t output_limit = size_t{4} << 20; // bytes kept of one command's output

class capture {
  public:
    capture();
    ~capture(); // puts standard output back; the captured file stays readable
    capture(const capture &) = delete;
    capture &operator=(const capture &) = delete;

    explicit operator bool() const { return static_cast<bool>(file_); }

    // Ends the capture and hands its file over; `size` is what it holds, `cut` whether more was printed.
    owned_fd finish(size_t &size, bool &cut);

  private:
    void restore();

    owned_fd file_, saved_;
    bool active_ = false, cut_ = false;
};

} // namespace ssat

#endif
