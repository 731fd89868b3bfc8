// The operation log: one line per ACL, ACE and apply operation, in two files per process that take turns at 5 MiB.
//
// Kept only while FP_UDP_DEBUG_OP_LOG is set. No descriptor is held between records: one takes eight system calls. The
// directory is under /tmp, where anybody may plant something: no link on the way to a file is followed, both folders
// are this user's or root's, and nothing is written to or emptied but a file of this user's that has no other name.
// Failures are reported and drop the record, never the operation.
#include "../fp_udp_dbg/channel/channel.hpp"
#include "../fp_udp_dbg/channel/proc_name.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <tq_time.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace plx::oplog {

inline constexpr char source[] = "app/fp_udp_log.cpp";
template <diag::Word W> inline constexpr diag::reporter<W, source> report{};
using enum diag::Word;

namespace {

constexpr off_t turn_size = 0x500000;
constexpr char header_text[] = "\n--------------log file-------------\n";
constexpr char second_header_text[] = "\n--------------log file1-------------\n";

enum Which : uint8_t {
    Main,
    Second,
    None // the files have not been made yet
};

struct {
    char name[2][dbg::proc_name_size + sizeof "_1.log"]; // of the main and the second file, within the directory
    bool named;
    bool unsafe; // no record can be kept, which was said at the start
    Which current = None;
} state;

const char *name_of(uint32_t op)
{
    constexpr const char *names[] = {"add", "del", "expire", "del_exp", "itera", "get", "success", "fail"};
    return op < std::size(names) ? names[op] : "";
}

class descriptor {
  public:
    explicit descriptor(int fd) : fd_(fd) {}
    ~descriptor()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    descriptor(descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor &operator=(descriptor &&) = delete;
    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }

  private:
    int fd_;
};

constexpr int directory_flags = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_RDONLY;

// The log directory, reached without following a link.
[[nodiscard]] int open_directory()
{
    const descriptor zlog(open("/tmp/zlog", directory_flags));
    return zlog ? openat(zlog.get(), "udp_fp_log", directory_flags) : -1;
}

bool is_link(int parent, const char *name)
{
    struct stat found = {};
    return fstatat(parent, name, &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(found.st_mode);
}

// Opens a folder, made if it is not there, readable for all whatever the umask is. mkdir itself follows no link.
descriptor make_folder(const descriptor &parent, const char *name)
{
    const bool made = mkdirat(parent.get(), name, 0755) == 0;
    descriptor folder(openat(parent.get(), name, directory_flags));
    if (made && folder)
        (void)fchmod(folder.get(), 0755);
    return folder;
}

bool is_foreign(const descriptor &folder)
{
    struct stat found = {};
    return folder && fstat(folder.get(), &found) == 0 && found.st_uid != 0 && found.st_uid != geteuid();
}

// Makes the log directory. What is wrong with what stands in its place, or null.
const char *claim_directory()
{
    const descriptor tmp(open("/tmp", O_DIRECTORY | O_CLOEXEC | O_RDONLY));
    const descriptor zlog = make_folder(tmp, "zlog");
    const descriptor logs = make_folder(zlog, "udp_fp_log");
    if (is_link(tmp.get(), "zlog") || is_link(zlog.get(), "udp_fp_log"))
        return "a link is in the way of /tmp/zlog/udp_fp_log";
    if (is_foreign(zlog) || is_foreign(logs))
        return "/tmp/zlog/udp_fp_log belongs to another user";
    return nullptr;
}

// One of the two files, open at its end.
class log_file {
  public:
    log_file() : file_(-1) {}
    log_file(const descriptor &directory, Which which) : file_(state.named ? open_in(directory, which) : -1)
    {
        struct stat found = {};
        if (file_ && fstat(file_.get(), &found) == 0 && is_ours(found))
            size_ = found.st_size;
    }
    explicit operator bool() const { return size_ >= 0; }
    off_t size() const { return size_; }
    bool empty_it() const { return ftruncate(file_.get(), 0) == 0; }

    // The header of a run. A new file's mode is not the umask's business.
    void begin(const char *header) const
    {
        if (size_ == 0)
            (void)fchmod(file_.get(), 0644);
        write_text(header);
    }

    // All of it or, on a full disk, nothing: half a line would spoil the next one too.
    void write_text(const char *text) const
    {
        const size_t length = std::strlen(text);
        size_t done = 0;
        while (done < length) {
            const ssize_t n = TEMP_FAILURE_RETRY(write(file_.get(), text + done, length - done));
            if (n <= 0)
                return take_back(done);
            done += static_cast<size_t>(n);
        }
    }

  private:
    // Unless a process of the same name has written behind it meanwhile.
    void take_back(size_t written) const
    {
        struct stat found = {};
        if (written > 0 && fstat(file_.get(), &found) == 0 && found.st_size == size_ + static_cast<off_t>(written))
            std::ignore = ftruncate(file_.get(), size_);
    }

    static bool is_ours(const struct stat &found)
    {
        return S_ISREG(found.st_mode) && found.st_uid == geteuid() && found.st_nlink == 1;
    }

    static int open_in(const descriptor &directory, Which which)
    {
        constexpr int flags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        return directory ? openat(directory.get(), state.name[which], flags, 0644) : -1;
    }

    descriptor file_;
    off_t size_ = -1; // unless a file of ours was opened
};

// Both files or neither: a record needs the first, and its turn the second.
[[nodiscard]] bool make_files(const descriptor &directory, diag::place at)
{
    const log_file first(directory, Main);
    if (!first) {
        report<Error>(at, "fp_udp_open log fail.\n");
        return false;
    }
    const log_file second(directory, Second);
    if (!second) {
        if (first.size() == 0)
            unlinkat(directory.get(), state.name[Main], 0);
        report<Error>(at, "fp_udp_open log 1 fail.\n");
        return false;
    }
    first.begin(header_text);
    second.begin(second_header_text);
    state.current = Main;
    return true;
}

// Both files are begun anew with the main file's header.
void turn_to(const descriptor &directory, Which which, diag::place at)
{
    state.current = which;
    const log_file file(directory, which);
    if (file && file.empty_it())
        file.write_text(header_text);
    else
        report<Error>(at, "open file fail");
}

// The current file, after its turn if it has grown too large.
log_file choose_file(const descriptor &directory, diag::place at)
{
    if (log_file file(directory, state.current); file.size() <= turn_size)
        return file;
    turn_to(directory, state.current == Main ? Second : Main, at);
    return {directory, state.current};
}

bool wanted()
{
    return (fp_udp_debug_sw & FP_UDP_DEBUG_OP_LOG) != 0 && !state.unsafe;
}

// The file that a record goes into, and the time now.
log_file open_current(char *now, size_t size, diag::place at)
{
    const descriptor directory(open_directory());
    if (state.current == None && !make_files(directory, at))
        return {};
    log_file file = choose_file(directory, at);
    if (tq_time_2_string(now, size) == 0) {
        report<Error>(at, "log acl get time failed.\n");
        return {};
    }
    if (!file)
        report<Error>(at, "log acl open fail.\n"); // "acl" in every writer's: log readers match this text
    return file;
}

// One record: begun with the time and the operation, written as a line when it goes. A null argument leaves its field
// out; so does a line that is full, though its newline always fits.
class record {
  public:
    record(const char *kind, uint32_t op, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
        : file_(wanted() ? open_current(now_, sizeof now_, {function, line}) : log_file())
    {
        if (file_)
            add("%.29s--%s_%s, ", now_, kind, name_of(op));
    }
    ~record()
    {
        if (!file_)
            return;
        text_[used_] = '\n';
        text_[used_ + 1] = '\0';
        file_.write_text(text_);
    }
    record(const record &) = delete;
    record &operator=(const record &) = delete;
    explicit operator bool() const { return static_cast<bool>(file_); }

    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        const int n = std::vsnprintf(text_ + used_, sizeof text_ - 1 - used_, format, arguments);
        va_end(arguments);
        used_ = std::min(used_ + static_cast<size_t>(std::max(n, 0)), sizeof text_ - 2);
    }

    void add_acl(const fp_udp_acl_info *acl)
    {
        if (acl != nullptr)
            add("app :%.31s, acl_id :%d, ", acl->app_type, static_cast<int32_t>(acl->acl_id));
    }

    void add_text(const char *label, const char *text)
    {
        if (text != nullptr)
            add("%s :%s, ", label, text);
    }

    // The separator behind the word differs between the writers: log readers match it.
    void add_private(const char *separator, const uint8_t *priv)
    {
        constexpr int shown = 16;
        if (priv == nullptr)
            return;
        add("priv%s", separator);
        for (int i = 0; i < shown; ++i)
            add("%02x ", priv[i]);
    }

  private:
    char now_[30];
    log_file file_;
    char text_[1024];
    size_t used_ = 0;
};

} // namespace
} // namespace plx::oplog

using namespace plx::oplog;

extern "C" {

int32_t fp_udp_op_log_init(void)
{
    char name[plx::dbg::proc_name_size] = {};
    state.named = false;
    if (fp_udp_dbg_get_proc_name(name) != 0) {
        report<Error>("fp_udp_op_log_init fail.\n");
        return -1;
    }
    plx::dbg::make_file_name(name);
    std::snprintf(state.name[Main], sizeof state.name[Main], "%s.log", name);
    std::snprintf(state.name[Second], sizeof state.name[Second], "%s_1.log", name);
    state.named = true;
    const char *obstacle = claim_directory();
    state.unsafe = obstacle != nullptr;
    if (state.unsafe) {
        report<Error>("%s, no operation is logged.\n", obstacle);
        return -1;
    }
    if (const int status = std::system("mkdir -p /tmp/zlog/udp_fp_log"); status != 0) {
        report<Error>("fp_udp_dir create fail.\n");
        return status;
    }
    state.current = None;
    return 0;
}

void fp_udp_log_op_acl(const fp_udp_acl_info *acl, const char *app, const uint8_t *priv, uint32_t op)
{
    record entry("acl", op);
    if (!entry)
        return;
    entry.add_acl(acl);
    entry.add_text("app", app);
    entry.add_private(", ", priv);
}

void fp_udp_log_op_ace(const fp_udp_acl_info *acl, const uint64_t *sn, const char *app, const uint8_t *priv,
                       const uint64_t *ace_pri, uint32_t op)
{
    record entry("ace", op);
    if (!entry)
        return;
    entry.add_acl(acl);
    if (sn != nullptr)
        entry.add("sn :%llx, ", static_cast<unsigned long long>(*sn));
    entry.add_text("app", app);
    if (ace_pri != nullptr)
        entry.add("ace_pri :%llu, ", static_cast<unsigned long long>(*ace_pri));
    entry.add_private(": ", priv);
}

void fp_udp_log_op_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, const char *app,
                         const uint8_t *priv, uint32_t op)
{
    record entry("apply", op);
    if (!entry)
        return;
    entry.add_acl(acl);
    if (apply != nullptr)
        entry.add("apply :%.31s, phyid :%x, pri :%x, dir :%d, ", apply->apply_type, apply->phyid, apply->pri,
                  static_cast<int32_t>(apply->dir));
    entry.add_text("apply", app);
    entry.add_private(", ", priv);
}

} // extern "C"
