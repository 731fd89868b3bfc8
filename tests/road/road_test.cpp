// Application, service nodes, plx show and monitor as processes of their own, with the rights that each has, around a
// store server as it is shipped. The prompt names the user. More verbs:
//
//     store start | crash | erase  the server, which is not there at the beginning; erase takes its data away
//     store tls                    it starts, and takes TLS connections at TLS_PORT, too
//     store run COMMAND...      a command to it as its operator, and the answer
#include "store/redis_server.hpp"
#include "support/session.hpp"

#include <iterator>
#include <sstream>

namespace plx {
namespace {

class Road : public Session {
  public:
    Road()
    {
        setenv("FAST", "env LD_PRELOAD=" FAST_CLOCK " ASAN_OPTIONS=verify_asan_link_order=0", 1);
        setenv("UNWILLING", "env LD_PRELOAD=" UNWILLING_STORE " ASAN_OPTIONS=verify_asan_link_order=0", 1);
        setenv("GUIDE", GUIDE_PROGRAM, 1);
        setenv("LIAR", LIAR_PROGRAM, 1);
        setenv("POLICIES", POLICIES, 1);
        setenv("JSON", JSON_LINES, 1);
        setenv("SCRAPE", SCRAPE, 1);
        setenv("SOURCES", SOURCES, 1);
        setenv("PYTHON", PYTHON, 1);
        setenv("PYTHONPATH", PYTHON, 1);
        setenv("LD_LIBRARY_PATH", LIBRARIES, 1);
        setenv("PYTHONDONTWRITEBYTECODE", "1", 1);
        setenv("CERTIFICATES", redis_server::certificates().c_str(), 1);
        setenv("PASSWORDS", server_.directory().c_str(), 1);
        setenv("TLS_PORT", tls_port_.c_str(), 1);
        setenv("SOCKET", server_.socket().c_str(), 1);
        for (const std::string user : {"application", "node", "reader"})
            urls_[user] = server_.url("plx-" + user);
    }

  private:
    using Environment = std::map<std::string, std::string>;

    Environment environment(const std::string &user) const override
    {
        const auto store = urls_.find(user);
        return store == urls_.end() ? Environment() : Environment{{"PLX_STORE", store->second}};
    }

    std::string perform(const std::string &line) override
    {
        std::istringstream stream(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
        if (words.size() < 2 || words[0] != "store") {
            std::string text = Session::perform(line);
            for (size_t at; (at = text.find(server_.socket())) != std::string::npos;)
                text.replace(at, server_.socket().size(), "SOCKET");
            return text;
        }
        if (words[1] == "run")
            return server_.run({words.begin() + 2, words.end()});
        if (words[1] == "erase")
            server_.erase_data();
        else
            words[1] == "crash"
                ? server_.crash()
                : server_.start(words[1] == "tls" ? redis_server::tls_options(tls_port_) : std::vector<std::string>());
        return {};
    }

    const std::string tls_port_ = redis_server::free_port();
    redis_server server_;
    Environment urls_; // of the store, by user
};

const bool registered = register_transcripts(PLX_TRANSCRIPTS, [] { return new Road; })
#ifndef PLX_UNDER_SANITIZER // which must be linked into the interpreter
                        && register_transcripts(PLX_TRANSCRIPTS "/../python", [] { return new Road; })
#endif
    ;

} // namespace
} // namespace plx
