// Transcripts of programs, each line run by a shell in a directory of the scenario's own (DIR):
//
//     user$ plx show acl           the line as that user of the store, or as nobody; then its output, its errors behind
//     user$ one& plx node          "! " and its exit code unless that is 0; in the background it is called "one"
//     says one ready               waits for a text among its errors
//     signal one 15
//     running one                  yes or no
//     end one                      waits until it ends, and shows all of it
//     tty plx shell app.fp         on a terminal
//     type va\tna                  keys on it
//     shows app.fp>                waits for a text on it; at last, end tty
//
// Shown as T is what took a time, as N a number of more than eight digits.
#pragma once

#include "process.hpp"
#include "transcript.hpp"

#include <memory>

namespace plx {

class Session : public Transcript {
  protected:
    Session();
    std::string perform(const std::string &line) override;
    // What a user's programs find in their environment.
    virtual std::map<std::string, std::string> environment(const std::string &user) const;
    std::string readable(std::string text) const;

    tool::TemporaryDirectory directory_;

  private:
    std::string shown(const tool::Result &result) const;
    std::string on_terminal(const std::string &verb, const std::string &rest);

    std::optional<tool::Terminal> terminal_;
    std::map<std::string, std::unique_ptr<tool::Process>> started_;
};

} // namespace plx
