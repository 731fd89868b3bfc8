// The debug shell's C interface: the process's modules, by name.
//
// Modules are opened and given commands once, when an application starts, and stay. The registry is never destroyed,
// because the application's loop, on which they are watched, may end before or after it; what the process's end does is
// remove the sockets, so that nobody finds a name without anybody behind it.
#include "ssat.h"

#include "log.hpp"
#include "module.hpp"
#include "platform/guard.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

using registry = std::map<std::string, std::unique_ptr<ssat::module>, std::less<>>;

registry &modules()
{
    static registry &known = *new registry;
    return known;
}

struct at_exit {
    ~at_exit()
    {
        for (const auto &[name, module] : modules())
            module->remove_socket();
    }
};
const at_exit remove_sockets;

bool one_line(std::string_view text)
{
    return std::ranges::all_of(text, [](unsigned char c) { return c >= ' ' && c != 0x7f; });
}

int open_module(void *context, const char *name)
{
    std::unique_ptr<ssat::module> opened = ssat::module::open(context, name);
    if (!opened) {
        const int error = errno ? errno : EIO;
        const std::string text = std::string("the shell of ") + name + " does not open: " + strerror(error);
        ssat::log(TQ_ZLOG_ERROR, __func__, text.c_str());
        return error;
    }
    modules().emplace(name, std::move(opened));
    return 0;
}

} // namespace

int ssat_lib_init(void *context, const char *module)
try {
    if (!context || !module || !*module)
        return EINVAL;
    const auto known = modules().find(module);
    if (known == modules().end())
        return open_module(context, module);
    return known->second->context() == context ? 0 : EBUSY;
} catch (...) {
    return platform::thrown_error();
}

int ssat_reg_mod_cmd(const char *module, const char *command, int reserved, const char *description,
                     ssat_handler handler)
try {
    if (!module || !command || reserved != 0 || !description || !handler)
        return EINVAL;
    const auto known = modules().find(module);
    if (known == modules().end())
        return ENOENT;
    auto arguments = ssat::parse_description(description);
    if (!ssat::valid_command_name(command) || !one_line(description) || !arguments)
        return EINVAL;
    return known->second->add({command, description, std::move(*arguments), handler});
} catch (...) {
    return platform::thrown_error();
}
