// TLS towards the broker: what OpenSSL needs for one connection.
#ifndef KAVEL_BROKER_TLS_CONTEXT_H
#define KAVEL_BROKER_TLS_CONTEXT_H

#include <cstddef>
#include <memory>
#include <openssl/ssl.h>
#include <string>

#include "session.h"

namespace kavel::broker {

// TLS 1.2 or newer. The certificate of the broker must come from the authority of the endpoint, and must be for its
// host: a name or an address. The files are read by the constructor, so that a renewed certificate counts for the next
// connection.
class TlsContext {
  public:
    // Throws SessionError.
    explicit TlsContext(const Endpoint &endpoint);
    TlsContext(const TlsContext &) = delete;
    TlsContext &operator=(const TlsContext &) = delete;
    ~TlsContext() = default;

    [[nodiscard]] SSL_CTX *Get() const { return context_.get(); }
    // Why the certificate of the broker was not accepted; empty: it was, or there was none yet.
    [[nodiscard]] const std::string &CertificateProblem() const { return certificateProblem_; }
    // The errno of a call of the socket that has failed; 0: none.
    [[nodiscard]] int SocketError() const { return socketError_; }

  private:
    struct Free {
        void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    };

    static void OnState(const SSL *connection, int state, int value);
    static long OnSocketDone(BIO *socket, int operation, const char *data, std::size_t size, int number, long argument,
                             int result, std::size_t *processed);
    static int OnVerified(int isAccepted, X509_STORE_CTX *store);
    void ExpectHost(const std::string &host);
    void UseCertificate(const Endpoint &endpoint);

    std::unique_ptr<SSL_CTX, Free> context_;
    std::string certificateProblem_;
    int socketError_ = 0;
};

} // namespace kavel::broker

#endif
