// See road.hpp.
#include "road.hpp"

#include <sstream>

namespace plx::tool {

const char *const edge_policy = R"(application: edge
acls:
  - id: 1
    class: 1
    name: guard
    entries:
      - {sn: 1, name: first, priority: 7, match: {etype: ipv4, ipv4_src: 10.0.0.0/8}, action: {fwd: deny}}
      - {sn: 2, name: last, default: true, action: {fwd: permit}}
applies:
  - {acl: 1, port: 5, direction: in}
)";

std::map<std::string, std::string> Road::environment(const std::string &user) const
{
    return {{"PLX_STORE", server_.url(user)}};
}

std::unique_ptr<Process> Road::background(const Arguments &arguments, const std::string &user)
{
    return std::make_unique<Process>(PLX_PROGRAM, arguments, environment(user));
}

std::unique_ptr<Process> Road::node(int slot, const Arguments &more, const std::string &user)
{
    Arguments arguments = {"node", "--slot", std::to_string(slot)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return background(arguments, user);
}

std::unique_ptr<Process> Road::ready_node(int slot, const Arguments &more)
{
    auto started = node(slot, more);
    EXPECT_TRUE(started->says("ready")) << started->err();
    return started;
}

Road::Arguments Road::apply_arguments(const Arguments &more, const std::string &policy)
{
    Arguments arguments = {"apply", directory_.write("policy.yaml", policy)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

Result Road::apply(const Arguments &more, const std::string &policy)
{
    return as("plx-application", apply_arguments(more, policy));
}

Result Road::as(const std::string &user, const Arguments &arguments)
{
    return run_program(PLX_PROGRAM, arguments, environment(user));
}

std::vector<nlohmann::json> Road::show(const Arguments &what)
{
    Arguments arguments = {"show", "--json"};
    arguments.insert(arguments.end(), what.begin(), what.end());
    const Result result = as("plx-reader", arguments);
    EXPECT_EQ(0, result.exit_code) << result.err;
    return objects(result.out);
}

std::vector<nlohmann::json> objects(const std::string &lines)
{
    std::vector<nlohmann::json> all;
    std::istringstream text(lines);
    for (std::string line; std::getline(text, line);) {
        all.push_back(nlohmann::json::parse(line, nullptr, false));
        EXPECT_TRUE(all.back().is_object()) << line;
    }
    return all;
}

} // namespace plx::tool
