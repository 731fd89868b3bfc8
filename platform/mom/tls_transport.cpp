// See tls_transport.hpp.
#include "tls_transport.hpp"

#include "small_file.hpp"

#include <arpa/inet.h>
#include <climits>
#include <new>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

namespace mom {
namespace {

constexpr size_t largest_file = size_t{4} << 20;

template <auto Free> struct freed_by {
    template <typename Object> void operator()(Object *object) const { Free(object); }
};
using method_ptr = std::unique_ptr<BIO_METHOD, freed_by<BIO_meth_free>>;
using bio_ptr = std::unique_ptr<BIO, freed_by<BIO_free>>;
using context_ptr = std::unique_ptr<SSL_CTX, freed_by<SSL_CTX_free>>;
using ssl_ptr = std::unique_ptr<SSL, freed_by<SSL_free>>;
using certificate_ptr = std::unique_ptr<X509, freed_by<X509_free>>;
using key_ptr = std::unique_ptr<EVP_PKEY, freed_by<EVP_PKEY_free>>;

template <typename Object> Object *made(Object *object)
{
    if (object == nullptr)
        throw std::bad_alloc();
    return object;
}

// ---- the socket below, without signals: OpenSSL's own writes to it with write()

int fd_of(BIO *bio)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
}

int write_below(BIO *bio, const char *bytes, int size)
{
    BIO_clear_retry_flags(bio);
    const ssize_t sent = ::send(fd_of(bio), bytes, static_cast<size_t>(size), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && later())
        BIO_set_retry_write(bio);
    return static_cast<int>(sent);
}

int read_below(BIO *bio, char *into, int room)
{
    BIO_clear_retry_flags(bio);
    const ssize_t size = recv(fd_of(bio), into, static_cast<size_t>(room), MSG_DONTWAIT);
    if (size < 0 && later())
        BIO_set_retry_read(bio);
    return static_cast<int>(size);
}

long control_below(BIO *, int command, long, void *)
{
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

method_ptr socket_below()
{
    method_ptr method(made(BIO_meth_new(BIO_TYPE_SOURCE_SINK, "socket")));
    BIO_meth_set_write(method.get(), write_below);
    BIO_meth_set_read(method.get(), read_below);
    BIO_meth_set_ctrl(method.get(), control_below);
    return method;
}

// ---- the files

// Nobody is asked for the password of a key.
int no_password(char *, int, int, void *)
{
    return -1;
}

bio_ptr open_file(const std::string &path, std::string &text, trouble &why)
{
    std::string reason;
    text = read_small_file(path, largest_file, reason);
    if (text.empty())
        why = {TQ_MOM_CERTIFICATE_FILE, "cannot read " + path + ": " + reason};
    return text.empty() ? nullptr : bio_ptr(made(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
}

certificate_ptr next_certificate(const bio_ptr &file)
{
    return certificate_ptr(PEM_read_bio_X509(file.get(), nullptr, no_password, nullptr));
}

bool trust(SSL_CTX *context, const std::string &path, trouble &why)
{
    if (path.empty())
        return SSL_CTX_set_default_verify_paths(context) == 1;
    std::string text;
    const auto file = open_file(path, text, why);
    if (file == nullptr)
        return false;
    size_t found = 0;
    for (auto each = next_certificate(file); each != nullptr; each = next_certificate(file))
        found += X509_STORE_add_cert(SSL_CTX_get_cert_store(context), each.get()) == 1 ? 1 : 0;
    if (found == 0)
        why = {TQ_MOM_CERTIFICATE_FILE, path + " holds no certificate"};
    return found > 0;
}

// The first is ours, those behind it lead to its issuer.
bool show_certificate(SSL_CTX *context, const std::string &path, trouble &why)
{
    std::string text;
    const auto file = open_file(path, text, why);
    if (file == nullptr)
        return false;
    const auto ours = next_certificate(file);
    if (ours == nullptr || SSL_CTX_use_certificate(context, ours.get()) != 1) {
        why = {TQ_MOM_CERTIFICATE_FILE, path + " holds no certificate"};
        return false;
    }
    for (auto each = next_certificate(file); each != nullptr; each = next_certificate(file))
        if (SSL_CTX_add1_chain_cert(context, each.get()) != 1)
            throw std::bad_alloc();
    return true;
}

bool take_key(SSL_CTX *context, const tls_files &files, trouble &why)
{
    std::string text;
    const auto file = open_file(files.key, text, why);
    if (file == nullptr)
        return false;
    const key_ptr key(PEM_read_bio_PrivateKey(file.get(), nullptr, no_password, nullptr));
    if (key == nullptr)
        why = {TQ_MOM_CERTIFICATE_FILE, files.key + " holds no private key that can be read without a password"};
    else if (X509_check_private_key(SSL_CTX_get0_certificate(context), key.get()) != 1)
        why = {TQ_MOM_CERTIFICATE_FILE,
               "the key in " + files.key + " does not belong to the certificate in " + files.cert};
    else if (SSL_CTX_use_PrivateKey(context, key.get()) == 1)
        return true;
    return false;
}

context_ptr make_tls_context(const tls_files &files, trouble &why)
{
    context_ptr context(made(SSL_CTX_new(TLS_client_method())));
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(context.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    why.result = TQ_MOM_CERTIFICATE_FILE;
    const bool usable = trust(context.get(), files.ca, why) &&
                        (files.cert.empty() ||
                         (show_certificate(context.get(), files.cert, why) && take_key(context.get(), files, why)));
    ERR_clear_error();
    return usable ? std::move(context) : nullptr;
}

bool is_address(const std::string &name)
{
    in6_addr address{};
    return inet_pton(AF_INET, name.c_str(), &address) == 1 || inet_pton(AF_INET6, name.c_str(), &address) == 1;
}

void expect_name(SSL *ssl, const std::string &name)
{
    const bool set = is_address(name)
                         ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1
                         : SSL_set1_host(ssl, name.c_str()) == 1 && SSL_set_tlsext_host_name(ssl, name.c_str()) == 1;
    if (!set)
        throw std::bad_alloc();
}

// ---- what goes wrong

int result_of_verification(long verdict)
{
    switch (verdict) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return TQ_MOM_CERTIFICATE_EXPIRED;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return TQ_MOM_CERTIFICATE_NAME;
    default:
        return TQ_MOM_CERTIFICATE_UNTRUSTED;
    }
}

std::string text_of(unsigned long error)
{
    const char *const reason = ERR_reason_error_string(error);
    return reason == nullptr ? "error " + std::to_string(error) : reason;
}

class openssl_transport : public tls_transport {
  public:
    openssl_transport(int fd, std::string name, const context_ptr &context)
        : name_(std::move(name)), below_(socket_below()), ssl_(made(SSL_new(context.get())))
    {
        BIO *const bio = made(BIO_new(below_.get()));
        BIO_set_data(bio, reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
        BIO_set_init(bio, 1);
        SSL_set_bio(ssl_.get(), bio, bio);
        expect_name(ssl_.get(), name_);
    }

    int handshake(short &needs) override
    {
        ERR_clear_error();
        const int done = SSL_connect(ssl_.get());
        return done == 1 ? 1 : static_cast<int>(outcome(done, needs));
    }

    // A peer that closed may have said why.
    ssize_t send(std::string_view bytes, short &needs) override
    {
        size_t sent = 0;
        ERR_clear_error();
        const int done = SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &sent);
        if (done == 1)
            return static_cast<ssize_t>(sent);
        const ssize_t result = outcome(done, needs);
        if (result == transport_ended)
            quiet();
        return result;
    }

    // What came before the end is received before that is told.
    ssize_t receive(char *into, size_t room, short &needs) override
    {
        size_t filled = 0;
        ssize_t last = 1;
        while (filled < room && last > 0) {
            size_t size = 0;
            ERR_clear_error();
            const int done = SSL_read_ex(ssl_.get(), into + filled, room - filled, &size);
            last = done == 1 ? 1 : outcome(done, needs);
            filled += size;
        }
        return filled > 0 ? static_cast<ssize_t>(filled) : last;
    }

    bool pending() const override { return SSL_pending(ssl_.get()) > 0; }

    // What is not for us, as new session tickets, is taken in on the way.
    bool quiet() override
    {
        char byte = 0;
        size_t size = 0;
        short needs = 0;
        ERR_clear_error();
        return SSL_peek_ex(ssl_.get(), &byte, 1, &size) != 1 && outcome(0, needs) == 0;
    }

  private:
    ssize_t outcome(int done, short &needs)
    {
        switch (SSL_get_error(ssl_.get(), done)) {
        case SSL_ERROR_WANT_READ:
            needs = POLLIN;
            return 0;
        case SSL_ERROR_WANT_WRITE:
            needs = POLLOUT;
            return 0;
        case SSL_ERROR_SSL:
            return failed(ERR_peek_error());
        default:
            return SSL_is_init_finished(ssl_.get()) == 1
                       ? transport_ended
                       : end(TQ_MOM_DISCONNECTED, name_ + " ends the connection in the TLS handshake");
        }
    }

    ssize_t failed(unsigned long error)
    {
        const long verdict = SSL_get_verify_result(ssl_.get());
        if (verdict != X509_V_OK)
            return end(result_of_verification(verdict), std::string("the certificate of ") + name_ +
                                                            " is refused: " + X509_verify_cert_error_string(verdict));
        if (ERR_GET_REASON(error) == SSL_R_WRONG_VERSION_NUMBER)
            return end(TQ_MOM_TLS_NOT_SPOKEN, {});
        return end(TQ_MOM_TLS_REFUSED, "TLS with " + name_ + " failed: " + text_of(error));
    }

    const std::string name_;
    const method_ptr below_;
    const ssl_ptr ssl_;
};

} // namespace

std::unique_ptr<tls_transport> make_tls_transport(int fd, const std::string &server_name, const tls_files &files,
                                                  trouble &why)
{
    const auto context = make_tls_context(files, why);
    return context == nullptr ? nullptr : std::make_unique<openssl_transport>(fd, server_name, context);
}

} // namespace mom
