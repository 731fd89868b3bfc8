// Addresses of host names, without standing still where nobody answers for a name.
//
// 1. Each attempt to connect has the name looked up anew, by the C library beside this thread (getaddrinfo_a).
// 2. It waits for that for a moment only. What is not there then is looked at by the next attempt, and until there is
//    something new the addresses that were found before stand.
// 3. Of several addresses the one that was connected to last is tried first, and one that failed last.
// 4. A lookup that nobody waits for any more ends by itself.
#ifndef TQ_MOM_NAME_LOOKUP_HPP
#define TQ_MOM_NAME_LOOKUP_HPP

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace mom {

struct lookup_request;
struct lookup_end {
    void operator()(lookup_request *request) const;
};

class name_lookup {
  public:
    /// Numeric addresses of the host, in the order in which to try them; none while they are not known.
    std::vector<std::string> addresses(const std::string &host);
    void connected(const std::string &host, const std::string &address);
    void failed(const std::string &host, const std::string &address);

  private:
    struct entry {
        std::unique_ptr<lookup_request, lookup_end> asked; ///< for addresses that are not there yet
        std::vector<std::string> found;
    };
    std::map<std::string, entry> hosts_;
};

} // namespace mom

#endif
