#include "capture.hpp"

#include <cstdio>
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/mman.h>

namespace ssat {

namespace {

// Where the application has closed its standard streams, new descriptors would take their numbers.
owned_fd above_standard_streams(owned_fd fd)
{
    if (!fd || fd.get() > STDERR_FILENO)
        return fd;
    return owned_fd(fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

// A file that takes output_limit bytes and not one more: writing on fails instead of filling the memory.
owned_fd bounded_file()
{
    owned_fd file = above_standard_streams(owned_fd(memfd_create("ssat-output", MFD_CLOEXEC | MFD_ALLOW_SEALING)));
    if (!file || ftruncate(file.get(), output_limit) != 0 || fcntl(file.get(), F_ADD_SEALS, F_SEAL_GROW) != 0)
        return owned_fd();
    return file;
}

// The first output decides how stdout is buffered, and it would find the file in memory in place of a terminal.
void settle_buffering()
{
    if (__fbufsize(stdout) == 0 && isatty(STDOUT_FILENO))
        setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

} // namespace

capture::capture()
{
    settle_buffering();
    fflush(stdout);
    file_ = bounded_file();
    if (!file_)
        return;
    saved_ = owned_fd(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)); // none when stdout is closed
    active_ = dup2(file_.get(), STDOUT_FILENO) >= 0;
    if (!active_)
        file_ = owned_fd();
}

capture::~capture()
{
    restore();
}

void capture::restore()
{
    if (!active_)
        return;
    active_ = false;
    cut_ = ferror(stdout) != 0;
    cut_ |= fflush(stdout) != 0;
    if (cut_) {
        __fpurge(stdout);
        clearerr(stdout);
    }
    if (saved_)
        dup2(saved_.get(), STDOUT_FILENO);
    else
        close(STDOUT_FILENO);
}

owned_fd capture::finish(size_t &size, bool &cut)
{
    restore();
    const off_t end = lseek(file_.get(), 0, SEEK_CUR);
    size = end > 0 ? static_cast<size_t>(end) : 0;
    cut = cut_;
    return std::move(file_);
}

} // namespace ssat
