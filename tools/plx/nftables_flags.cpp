// See nftables_flags.hpp.
#include "nftables_flags.hpp"

#include "document.hpp"
#include <charconv>
#include <cstring>
#include <fstream>
#include <net/if.h>

namespace plx::tool {

namespace {

using plane::packet::Config;
using plane::packet::Load;
using plane::packet::Rate;
using plane::packet::Source;

template <typename Number> bool parse(std::string_view text, Number &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// "NUMBER=REST"
bool split(std::string_view text, uint32_t &number, std::string &rest)
{
    const size_t at = text.find('=');
    if (at == std::string_view::npos || !parse(text.substr(0, at), number))
        return false;
    rest = text.substr(at + 1);
    return true;
}

bool is_interface(const std::string &name)
{
    return !name.empty() && name.size() < IFNAMSIZ && name.find_first_of("/ \t\n:") == std::string::npos;
}

using Names = std::map<uint32_t, std::string>;

bool add_interface(Names &names, uint32_t number, const std::string &name, const std::string &where, std::string &error)
{
    if (!is_interface(name))
        error = where + ": '" + name + "' is not the name of an interface";
    else if (!names.emplace(number, name).second)
        error = where + ": " + std::to_string(number) + " is there twice";
    return error.empty();
}

bool read_names(const std::vector<std::string> &texts, const std::string &option, Names &names, std::string &error)
{
    for (const std::string &text : texts) {
        uint32_t number = 0;
        std::string name;
        if (!split(text, number, name))
            error.append(option).append(": '").append(text).append("' is not NUMBER=INTERFACE");
        else
            add_interface(names, number, name, option, error);
        if (!error.empty())
            return false;
    }
    return true;
}

bool read_line(const Event &line, Document &document, const std::string &where, Names &names, std::string &error)
{
    uint32_t number = 0;
    const bool port = line.kind == Event::Kind::scalar && parse(line.text, number);
    const Event name = document.next();
    if (!port || name.kind != Event::Kind::scalar)
        error = where + ": not PORT: INTERFACE";
    return error.empty() && add_interface(names, number, std::string(name.text), where, error);
}

bool read_file(const std::string &path, Names &names, std::string &error)
try {
    std::ifstream file(path);
    if (!file) {
        error = path + ": " + strerror(errno);
        return false;
    }
    Document document(file);
    if (document.next().kind != Event::Kind::map) {
        error = path + ": not lines of PORT: INTERFACE";
        return false;
    }
    for (Event line = document.next(); line.kind != Event::Kind::end; line = document.next())
        if (!read_line(line, document, path + ':' + std::to_string(line.at.line), names, error))
            return false;
    return true;
} catch (const Document::Fault &fault) {
    error = path + ':' + std::to_string(fault.at.line) + ": " + fault.what();
    return false;
}

// "1000" packets a second, or "64kbytes", "10mbytes", "500bytes"; "/N" behind it: so many more at once.
bool read_rate(std::string_view text, Rate &rate)
{
    const size_t slash = text.find('/');
    const bool bursts = slash != std::string_view::npos;
    if (bursts && !parse(text.substr(slash + 1), rate.burst))
        return false;
    std::string_view number = text.substr(0, slash);
    uint64_t unit = 1;
    const std::pair<std::string_view, uint64_t> units[] = {{"kbytes", 1000}, {"mbytes", 1000000}, {"bytes", 1}};
    for (const auto &[name, size] : units)
        if (number.ends_with(name)) {
            rate.bytes = true;
            unit = size;
            number.remove_suffix(name.size());
            break;
        }
    if (!parse(number, rate.per_second) || rate.per_second == 0 || rate.per_second > UINT32_MAX)
        return false;
    rate.per_second *= unit;
    if (!bursts)
        rate.burst = rate.bytes ? static_cast<uint32_t>(std::min<uint64_t>(rate.per_second / 10, UINT32_MAX)) : 5;
    return true;
}

bool read_meters(const NftablesFlags &flags, Config &config, std::string &error)
{
    for (const std::string &text : flags.meters) {
        uint32_t number = 0;
        std::string rest;
        Rate rate;
        if (!split(text, number, rest) || !read_rate(rest, rate))
            error = "--meter: '" + text + "' is not ID=RATE, such as 7=1000 (packets a second) or 7=64kbytes";
        else if (!config.meters.emplace(number, rate).second)
            error = "--meter: " + std::to_string(number) + " is there twice";
        if (!error.empty())
            return false;
    }
    return true;
}

bool read_udf(const NftablesFlags &flags, Config &config, std::string &error)
{
    const std::pair<std::string_view, Load> bases[] = {
        {"link", Load::link}, {"network", Load::network}, {"transport", Load::transport}};
    for (const std::string &text : flags.udf) {
        uint32_t number = 0;
        uint8_t offset = 0;
        std::string rest;
        const bool numbered = split(text, number, rest) && number >= 1 && number <= config.udf.size();
        const size_t plus = std::min(rest.find('+'), rest.size());
        const auto *base = std::find_if(std::begin(bases), std::end(bases),
                                        [&](const auto &known) { return known.first == rest.substr(0, plus); });
        if (!numbered || base == std::end(bases) || plus == rest.size() || !parse(rest.substr(plus + 1), offset)) {
            error = "--udf: '" + text +
                    "' is not N=BASE+OFFSET, such as 1=transport+8 (N 1 to 8, BASE link, network or "
                    "transport, OFFSET 0 to 255)";
            return false;
        }
        config.udf[number - 1] = Source{base->second, 4, offset};
    }
    return true;
}

bool read_ignored(const NftablesFlags &flags, Config &config, std::string &error)
{
    for (const std::string &name : flags.ignore) {
        const size_t before = config.ignored.size();
        for (const Form &form : forms())
            if (form.name == name)
                config.ignored.insert(&form);
        if (config.ignored.size() == before) {
            error = "--ignore: there is no attribute '" + name + "'";
            return false;
        }
    }
    return true;
}

} // namespace

bool NftablesFlags::any() const
{
    return !ports.empty() || !ports_file.empty() || !netns.empty() || !ignore.empty() || double_tagged != "drop" ||
           !meters.empty() || !mirrors.empty() || sample || !udf.empty();
}

void add_options(CLI::App &command, NftablesFlags &flags)
{
    const std::string group = "Options of the plane nftables";
    command.add_option("--port", flags.ports, "PORT=INTERFACE: a port (phyid) of the policy that is here")
        ->allow_extra_args(false)
        ->group(group);
    command.add_option("--ports", flags.ports_file, "file of lines PORT: INTERFACE, read again on SIGHUP")
        ->group(group);
    command.add_option("--netns", flags.netns, "network namespace that the interfaces are in")->group(group);
    command.add_option("--ignore", flags.ignore, "attributes that are left out of every entry, NAME,...")
        ->delimiter(',')
        ->group(group);
    command
        .add_option("--double-tagged", flags.double_tagged,
                    "frames with two tags, behind which Linux sees no addresses: drop or pass")
        ->check(CLI::IsMember({"drop", "pass"}))
        ->capture_default_str()
        ->group(group);
    command
        .add_option("--meter", flags.meters,
                    "ID=RATE[/BURST] of the action meter: packets a second, or with bytes, kbytes or mbytes behind it")
        ->allow_extra_args(false)
        ->group(group);
    command.add_option("--mirror", flags.mirrors, "ID=INTERFACE of the action mirror_id")
        ->allow_extra_args(false)
        ->group(group);
    command.add_option("--sample", flags.sample, "log group (nfnetlink_log) of the action stat_sampling")->group(group);
    command
        .add_option("--udf", flags.udf, "N=BASE+OFFSET: the four bytes of ace_udfN; BASE is link, network or transport")
        ->allow_extra_args(false)
        ->group(group);
}

std::optional<std::map<uint32_t, std::string>> ports_of(const NftablesFlags &flags, std::string &error)
{
    Names ports;
    const bool read = read_names(flags.ports, "--port", ports, error) &&
                      (flags.ports_file.empty() || read_file(flags.ports_file, ports, error));
    return read ? std::optional(std::move(ports)) : std::nullopt;
}

std::optional<Config> config_of(const NftablesFlags &flags, std::string &error)
{
    Config config;
    auto ports = ports_of(flags, error);
    if (!ports)
        return std::nullopt;
    config.ports = std::move(*ports);
    config.sample_group = flags.sample;
    config.double_tagged = flags.double_tagged == "pass";
    const bool read = read_names(flags.mirrors, "--mirror", config.mirrors, error) &&
                      read_meters(flags, config, error) && read_udf(flags, config, error) &&
                      read_ignored(flags, config, error);
    return read ? std::optional(std::move(config)) : std::nullopt;
}

} // namespace plx::tool
