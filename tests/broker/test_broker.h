// mosquitto on the loopback interface, and certificates for it.
#ifndef KAVEL_TESTS_BROKER_TEST_BROKER_H
#define KAVEL_TESTS_BROKER_TEST_BROKER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "session.h"

namespace kavel::broker {

// Runs a program to its end. Throws std::runtime_error if it fails.
void RunProgram(const std::vector<std::string> &arguments);

// A directory that is removed with its content.
class TestDirectory {
  public:
    TestDirectory();
    TestDirectory(const TestDirectory &) = delete;
    TestDirectory &operator=(const TestDirectory &) = delete;
    ~TestDirectory();

    [[nodiscard]] std::string File(const std::string &name) const { return path_ + "/" + name; }
    // Returns the path of the file.
    std::string Write(const std::string &name, const std::string &content) const;

  private:
    std::string path_;
};

// An authority and the certificates that it signs. The files are NAME.pem and NAME.key in the directory.
class TestAuthority {
  public:
    // The certificate of the authority is NAME.pem.
    TestAuthority(const TestDirectory &directory, const std::string &name);

    [[nodiscard]] std::string Certificate() const { return directory_.File(name_ + ".pem"); }
    // `names`: what a client compares with the host, "DNS:localhost,IP:127.0.0.1". `days`: that the certificate is
    // valid for; negative: it has expired.
    void Sign(const std::string &name, const std::string &names, int days) const;

  private:
    const TestDirectory &directory_;
    std::string name_;
};

class TestBroker {
  public:
    // `configuration`: lines besides those for the listener. Throws std::runtime_error if it does not start.
    explicit TestBroker(const std::string &configuration = "allow_anonymous true\n");
    TestBroker(const TestBroker &) = delete;
    TestBroker &operator=(const TestBroker &) = delete;
    ~TestBroker() { Kill(); }

    [[nodiscard]] std::uint16_t Port() const { return port_; }
    // Of a client without TLS.
    [[nodiscard]] Session::Options Options(const std::string &clientId) const;
    void Kill();
    // On the same port.
    void Restart();

  private:
    [[nodiscard]] bool Start();

    TestDirectory directory_;
    std::string configuration_;
    std::uint16_t port_ = 0;
    pid_t pid_ = 0;
};

} // namespace kavel::broker

#endif
