// See node_answers.hpp.
#include "node_answers.hpp"

#include "nodes/node_watch.hpp"

namespace plx::tool {

void NodeAnswers::confirmed(size_t row, const std::string &node)
{
    std::vector<bool> &rows = confirmed_[node];
    if (rows.size() <= row)
        rows.resize(row + 1);
    rows[row] = true;
}

std::string NodeAnswers::where_refused(size_t row) const
{
    const auto refuser = refusers_.find(row);
    return refuser == refusers_.end() || refuser->second.empty() ? "" : " on " + refuser->second;
}

// Of the nodes that lived when writing began and name themselves, those that have not answered.
std::string NodeAnswers::missing(size_t row) const
{
    std::vector<std::string> names;
    for (const std::string &node : nodes_) {
        const auto rows = confirmed_.find(node);
        if (rows == confirmed_.end() || row >= rows->second.size() || !rows->second[row])
            names.push_back(node);
    }
    return names.empty() || unnamed_ ? "" : "; none from " + listed(names);
}

} // namespace plx::tool
