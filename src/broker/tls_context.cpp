#include "tls_context.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <new>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <system_error>

namespace kavel::broker {

namespace {

// The reason of the first error that OpenSSL has kept; it keeps none afterwards.
std::string TakeOpensslProblem()
{
    const unsigned long first = ERR_get_error();
    ERR_clear_error();
    if (ERR_SYSTEM_ERROR(first)) {
        return std::generic_category().message(ERR_GET_REASON(first));
    }
    const char *const reason = ERR_reason_error_string(first);
    return reason != nullptr ? reason : "unknown error";
}

void ExpectRead(int result, const char *what, const std::string &path)
{
    if (result != 1) {
        throw SessionError(std::string(what) + " " + path + ": " + TakeOpensslProblem());
    }
}

bool IsAddress(const std::string &host)
{
    std::array<unsigned char, sizeof(in6_addr)> address{};
    return inet_pton(AF_INET, host.c_str(), address.data()) == 1 ||
           inet_pton(AF_INET6, host.c_str(), address.data()) == 1;
}

// A key with a pass phrase cannot be used: without this OpenSSL asks for it at the terminal.
int NoPassphrase(char * /*buffer*/, int /*size*/, int /*isForWriting*/, void * /*data*/)
{
    return -1;
}

} // namespace

TlsContext::TlsContext(const Endpoint &endpoint) : context_(SSL_CTX_new(TLS_client_method()))
{
    if (!context_) {
        throw std::bad_alloc();
    }
    ERR_clear_error();
    SSL_CTX_set_app_data(context_.get(), this);
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
    SSL_CTX_set_mode(context_.get(), SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, OnVerified);
    SSL_CTX_set_info_callback(context_.get(), OnState);
    SSL_CTX_set_default_passwd_cb(context_.get(), NoPassphrase);
    ExpectRead(SSL_CTX_load_verify_file(context_.get(), endpoint.ca.c_str()), "ca", endpoint.ca);
    ExpectHost(endpoint.host);
    if (!endpoint.certificate.empty()) {
        UseCertificate(endpoint);
    }
}

void TlsContext::ExpectHost(const std::string &host)
{
    X509_VERIFY_PARAM *const expected = SSL_CTX_get0_param(context_.get());
    X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const int result = IsAddress(host) ? X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str())
                                       : X509_VERIFY_PARAM_set1_host(expected, host.c_str(), host.size());
    // Without a name every one would be accepted.
    if (result != 1 || host.empty()) {
        throw SessionError("host: expected a name or an address");
    }
}

void TlsContext::UseCertificate(const Endpoint &endpoint)
{
    SSL_CTX *const context = context_.get();
    ExpectRead(SSL_CTX_use_certificate_chain_file(context, endpoint.certificate.c_str()), "certificate",
               endpoint.certificate);
    const bool isKeyUsed = SSL_CTX_use_PrivateKey_file(context, endpoint.key.c_str(), SSL_FILETYPE_PEM) == 1;
    const unsigned long first = ERR_peek_error();
    const bool isForeign = isKeyUsed ? SSL_CTX_check_private_key(context) != 1 : ERR_GET_LIB(first) == ERR_LIB_X509;
    if (isForeign) {
        ERR_clear_error();
        throw SessionError("key " + endpoint.key + ": does not fit the certificate " + endpoint.certificate);
    }
    ExpectRead(isKeyUsed ? 1 : 0, "key", endpoint.key);
}

int TlsContext::OnVerified(int isAccepted, X509_STORE_CTX *store)
{
    if (isAccepted == 0) {
        const auto *const connection =
            static_cast<const SSL *>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
        auto *const self = static_cast<TlsContext *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
        self->certificateProblem_ = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    }
    return isAccepted;
}

void TlsContext::OnState(const SSL *connection, int state, int /*value*/)
{
    if ((state & SSL_CB_HANDSHAKE_START) != 0) {
        BIO *const socket = SSL_get_rbio(connection);
        BIO_set_callback_arg(socket, static_cast<char *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection))));
        BIO_set_callback_ex(socket, OnSocketDone);
    }
}

// A broker that refuses the certificate says why, and closes the connection: the client may be writing then. The write
// counts as one that would block, so that the client reads what the broker has said, and then the end.
long TlsContext::OnSocketDone(BIO *socket, int operation, const char * /*data*/, std::size_t /*size*/, int /*number*/,
                              long /*argument*/, int result, std::size_t * /*processed*/)
{
    const int error = errno;
    const int call = operation & ~BIO_CB_RETURN;
    if (call == operation || (call != BIO_CB_READ && call != BIO_CB_WRITE) || result >= 0 ||
        BIO_should_retry(socket) != 0) {
        return result;
    }
    const bool isClosed = error == ECONNRESET || error == EPIPE;
    if (call == BIO_CB_WRITE && isClosed && BIO_number_read(socket) > 0) {
        BIO_set_retry_write(socket);
        return result;
    }
    reinterpret_cast<TlsContext *>(BIO_get_callback_arg(socket))->socketError_ = error;
    return result;
}

} // namespace kavel::broker
