// Who has answered for which row: the library counts answers, and an operator wants names.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace plx::tool {

class NodeAnswers {
  public:
    // From these an answer is expected for every row.
    void expect(std::vector<std::string> nodes) { nodes_ = std::move(nodes); }
    size_t expected() const { return nodes_.size(); }

    void unnamed() { unnamed_ = true; } // a node answers that does not name itself
    void confirmed(size_t row, const std::string &node);
    void refused(size_t row, const std::string &node) { refusers_[row] = node; }

    // " on leaf-1", of the last that refused the row, or nothing.
    std::string where_refused(size_t row) const;
    // "; none from leaf-2", or nothing where all have confirmed it, or nobody can know.
    std::string missing(size_t row) const;

  private:
    std::vector<std::string> nodes_;
    bool unnamed_ = false;
    std::map<std::string, std::vector<bool>> confirmed_; // rows, by node
    std::map<size_t, std::string> refusers_;             // of a row, the last
};

} // namespace plx::tool
