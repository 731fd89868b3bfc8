// TLS on a connected socket, by OpenSSL, which is included by tls_transport.cpp alone.
//
// 1. The server's certificate must lead to one of the address's `ca` file, or of those that the machine trusts, must be
//    valid now, and for the name or numeric address that was asked for. Nothing turns that off.
// 2. The files are read for each connection, so that renewed ones hold from the next connection on.
// 3. Whoever made one calls handshake() until it is done, before anything else.
#ifndef TQ_MOM_TLS_TRANSPORT_HPP
#define TQ_MOM_TLS_TRANSPORT_HPP

#include "transport.hpp"
#include "url.hpp"

namespace mom {

class tls_transport : public transport {
  public:
    /// 1 when done, 0 when it waits for the descriptor, or transport_ended.
    [[nodiscard]] virtual int handshake(short &needs) = 0;
};

/// Null, and why, when the files cannot be used.
std::unique_ptr<tls_transport> make_tls_transport(int fd, const std::string &server_name, const tls_files &files,
                                                  trouble &why);

} // namespace mom

#endif
