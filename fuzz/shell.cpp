// A client of the debug shell that sends anything: the library with its own commands on the reference platform, a
// module's socket in a folder of its own, and one connection a run. Every line that is not blank has exactly one
// answer, which is as long as its header says, and the next client is served as if nothing had been.
#include "input.hpp"

#include <plx/libplx.h>
#include <ssat_client.h>
#include <tq_context.h>
#include <tq_loop.h>

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

std::string folder;
tq_context *application = nullptr;

void clean_up()
{
    unlink((folder + "/switch").c_str());
    rmdir(folder.c_str());
}

void make_folder()
{
    char name[] = "/tmp/plx-fuzz-XXXXXX";
    fuzz::require(mkdtemp(name) != nullptr, "a folder can be made");
    folder = name;
    setenv("PLX_SHELL_DIR", name, 1);
    snprintf(lib_plx_debug_path, sizeof lib_plx_debug_path, "%s/switch", name);
    atexit(clean_up);
}

void fill_cache(const fp_udp_mgr &mgr)
{
    for (const char *type : {"security_app", "my_app"}) {
        fp_udp_acl acl{};
        strcpy(acl.app_type, type);
        acl.acl_id = 1;
        mgr.set_acl(application, &acl);
        fp_udp_acl_key key{};
        strcpy(key.app_type, type);
        key.acl_id = 1;
        fp_udp_ace *ace = mgr.alloc_ace(7, 0);
        mgr.set_ace(application, &key, ace);
        mgr.free_ace(ace);
    }
}

void start()
{
    fuzz::be_quiet();
    make_folder();
    application = tq_context_new("mem:");
    const fp_udp_acl_handler handler{};
    fuzz::require(fp_udp_register_app_type("my_app") == 0, "a type is registered");
    fuzz::require(fp_udp_register_acl_handler(application, 5, &handler) == 0, "the callbacks are registered");
    fill_cache(*fp_udp_get_mgr());
}

int connect()
{
    std::string module;
    const int failed =
        ssat_client_modules([](const char *name, void *arg) { *static_cast<std::string *>(arg) = name; }, &module);
    fuzz::require(failed == 0 && !module.empty(), "the module is there");
    const int fd = ssat_client_connect(module.c_str());
    fuzz::require(fd >= 0, "the module takes a connection");
    return fd;
}

void turn_loop()
{
    fuzz::require(tq_loop_run_once(application->master, 0) == 0, "the loop runs");
}

// What has been answered so far; false when the module has closed the connection.
bool receive(int fd, std::string &answers)
{
    char buffer[65536];
    for (;;) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n > 0)
            answers.append(buffer, static_cast<size_t>(n));
        else
            return n < 0 && (errno == EAGAIN || errno == EINTR);
    }
}

// Sends everything, in pieces of the input's choice, and returns all that comes back.
std::string talk(fuzz::input in)
{
    const int fd = connect();
    const uint32_t piece = 1 + in.below(64) * 16;
    std::string lines = in.rest(), answers;
    bool open = true;
    while (open && !lines.empty()) {
        const ssize_t sent = send(fd, lines.data(), std::min<size_t>(piece, lines.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0)
            lines.erase(0, static_cast<size_t>(sent));
        turn_loop();
        open = receive(fd, answers);
    }
    shutdown(fd, SHUT_WR);
    for (int turns = 0; open; turns++) {
        fuzz::require(turns < 10'000, "a connection comes to its end");
        turn_loop();
        open = receive(fd, answers);
    }
    close(fd);
    return answers;
}

// Takes one answer off the front.
void take_answer(std::string_view &answers)
{
    const size_t end = answers.find('\n');
    fuzz::require(end != answers.npos, "an answer begins with a line");
    const std::string header(answers.substr(0, end));
    char status[16], cut[4] = "";
    size_t size = 0;
    const int words = sscanf(header.c_str(), "%15s %zu %3s", status, &size, cut);
    fuzz::require(words == 2 || (words == 3 && strcmp(cut, "cut") == 0), "its header has a status and a length");
    answers.remove_prefix(end + 1);
    fuzz::require(size <= answers.size(), "its body is as long as that");
    answers.remove_prefix(size);
}

size_t lines_to_answer(std::string_view text)
{
    size_t count = 0;
    for (size_t end; (end = text.find('\n')) != text.npos; text.remove_prefix(end + 1)) {
        const std::string_view line = text.substr(0, end - (end > 0 && text[end - 1] == '\r'));
        count += line.find_first_not_of(" \t") != line.npos;
    }
    return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool started = (start(), true);
    fuzz::require(started, "the library runs");
    const std::string answers = talk(fuzz::input(data, size));
    size_t count = 0;
    for (std::string_view rest = answers; !rest.empty(); count++)
        take_answer(rest);
    const std::string_view sent(reinterpret_cast<const char *>(data), size);
    fuzz::require(count == lines_to_answer(sent.substr(std::min<size_t>(size, 1))), "every line has one answer");
    return 0;
}
