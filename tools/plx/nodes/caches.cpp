// See caches.hpp.
#include "nodes/caches.hpp"

#include "shell_line.hpp"

#include <ssat_client.h>
#include <sstream>

namespace plx::tool {

namespace {

constexpr std::string_view commands = ".plx"; // behind a program's name: the shell of the library's own commands

// The line's key, of an application; nullopt of a line that is none.
std::optional<CachedRecord> record_of(const std::string &line, const std::string &app)
{
    std::istringstream in(line);
    std::string kind;
    CachedRecord record;
    AceKey ace;
    ApplyKey apply;
    ace.app = apply.app = app;
    if (in >> kind && kind == "ace" && in >> ace.acl >> ace.sn >> record.request)
        record.key = ace;
    else if (kind == "apply" && in >> apply.acl >> apply.phyid >> apply.priority >> apply.direction >> record.request &&
             in.get() == ' ' && std::getline(in, apply.acl_app))
        record.key = apply;
    else
        return std::nullopt;
    return record;
}

} // namespace

std::string Cache::name() const
{
    std::string name = shell_.name();
    const size_t at = name.rfind(commands);
    return at == std::string::npos ? name : name.erase(at, commands.size());
}

bool Cache::ask(const std::string &part, ShellAnswer &answer, std::string &error)
{
    answer = shell_.ask(join_words({"plx_cache_digest", app_, part}));
    if (answer.status == SSAT_OK && answer.cut == 0)
        return true;
    error = answer.status < 0 ? shell_error(answer.error) : answer.cut != 0 ? "its answer is cut short" : "it refuses";
    return false;
}

bool Cache::read(std::optional<PartDigests> &sums, std::string &error)
{
    ShellAnswer answer;
    if (!ask("-1", answer, error)) // a program without the type, or of an older library, has nothing to tell
        return answer.status == SSAT_FAILED || answer.status == SSAT_UNKNOWN || answer.error == ECONNREFUSED;
    std::istringstream lines(answer.text);
    PartDigests all{};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        uint32_t part = 0;
        Digest sum;
        if (!(in >> part >> sum.count >> std::hex >> sum.lo >> sum.hi) || part >= all.size()) {
            error = "its answer is none";
            return false;
        }
        all[part] = sum;
    }
    sums = all;
    return true;
}

bool Cache::read_part(uint32_t part, std::vector<CachedRecord> &records, std::string &error)
{
    ShellAnswer answer;
    if (!ask(std::to_string(part), answer, error))
        return false;
    std::istringstream lines(answer.text);
    for (std::string line; std::getline(lines, line);) {
        const auto record = record_of(line, app_);
        if (!record) {
            error = "its answer is none";
            return false;
        }
        records.push_back(*record);
    }
    return true;
}

int find_caches(const std::string &app, std::vector<std::unique_ptr<Cache>> &caches)
{
    std::vector<std::string> modules;
    const int error = shell_modules(modules);
    for (const std::string &module : modules)
        if (module.find(commands) != std::string::npos)
            caches.push_back(std::make_unique<Cache>(module, app));
    return error;
}

} // namespace plx::tool
