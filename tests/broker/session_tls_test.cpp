// Who is trusted: the certificates of the broker and of the client.
#include "scripted_broker.h"
#include "test_broker.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>

namespace kavel::broker {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char *kLoopbackNames = "DNS:localhost,IP:127.0.0.1";
constexpr int kValid = 30;
constexpr int kExpired = -1;

// The certificates that the tests of this file share: openssl takes its time.
struct Certificates {
    Certificates()
    {
        good.Sign("broker", kLoopbackNames, kValid);
        good.Sign("expired-broker", kLoopbackNames, kExpired);
        good.Sign("elsewhere", "DNS:elsewhere.example", kValid);
        good.Sign("box", "DNS:box", kValid);
        good.Sign("expired-box", "DNS:box", kExpired);
        other.Sign("stranger", "DNS:box", kValid);
    }

    TestDirectory directory;
    TestAuthority good{directory, "good"};
    TestAuthority other{directory, "other"};
};

class SessionTlsTest : public testing::Test {
  protected:
    static void SetUpTestSuite() { certificates = std::make_unique<Certificates>(); }
    static void TearDownTestSuite() { certificates.reset(); }

    [[nodiscard]] static std::string File(const std::string &name) { return certificates->directory.File(name); }

    void StartBroker(const std::string &certificate = "broker")
    {
        broker = std::make_unique<TestBroker>(
            "cafile " + File("good.pem") + "\ncertfile " + File(certificate + ".pem") + "\nkeyfile " +
            File(certificate + ".key") + "\nrequire_certificate true\nuse_identity_as_username true\nacl_file " +
            certificates->directory.Write("acl", "pattern readwrite kavel/%u/#\n") + "\n");
    }

    [[nodiscard]] Session::Options Options(const std::string &certificate = "box", const std::string &ca = "good") const
    {
        Session::Options options = broker->Options("box");
        options.endpoint.ca = File(ca + ".pem");
        options.endpoint.certificate = File(certificate + ".pem");
        options.endpoint.key = File(certificate + ".key");
        return options;
    }

    // The line of the first failure.
    [[nodiscard]] std::string Failure(const Session::Options &options)
    {
        TestSession session(loop, options);
        session->Start();
        const bool isClosed = WaitFor(loop, [&] { return !session.closed.empty(); });
        EXPECT_EQ(session.connections, 0);
        return isClosed ? session.closed.front() : "";
    }

    static std::unique_ptr<Certificates> certificates;
    EventLoop loop;
    std::unique_ptr<TestBroker> broker;
};

std::unique_ptr<Certificates> SessionTlsTest::certificates;

std::string ConstructionError(EventLoop &loop, const Session::Options &options)
{
    try {
        const Session session(loop, options, {});
    } catch (const SessionError &error) {
        return error.what();
    }
    return "constructed";
}

TEST_F(SessionTlsTest, ConnectsWithACertificateOfTheAuthority)
{
    StartBroker();
    Session::Options options = Options();
    options.filters = {"kavel/box/online"};
    for (const char *host : {"127.0.0.1", "localhost"}) {
        options.endpoint.host = host;
        TestSession box(loop, options);
        ASSERT_TRUE(box.Connect()) << host;
        EXPECT_EQ(box.PublishAndWait(MessageOf("kavel/box/online", host)), "");
        ASSERT_TRUE(box.WaitForPayload(host));
        EXPECT_EQ(box.PublishAndWait(MessageOf("kavel/other/online", host)), "Not authorized");
    }
}

TEST_F(SessionTlsTest, CarriesALargePayload)
{
    StartBroker();
    Session::Options options = Options();
    options.filters = {"kavel/box/desired/+"};
    TestSession box(loop, options);
    ASSERT_TRUE(box.Connect());
    const std::string large(2UL * 1024 * 1024, 'x');
    EXPECT_EQ(box.PublishAndWait(MessageOf("kavel/box/desired/1", large)), "");
    ASSERT_TRUE(WaitFor(loop, [&] { return !box.received.empty(); }));
    EXPECT_TRUE(PayloadOf(box.received.front()) == large);
}

TEST_F(SessionTlsTest, ConnectsAgainAfterTheBrokerRestarted)
{
    StartBroker();
    TestSession box(loop, Options());
    ASSERT_TRUE(box.Connect());
    broker->Restart();
    ASSERT_TRUE(WaitFor(loop, [&] { return box.connections == 2; }));
}

TEST_F(SessionTlsTest, TellsThatTheConnectionWasLost)
{
    StartBroker();
    TestSession box(loop, Options());
    ASSERT_TRUE(box.Connect());
    broker->Kill();
    ASSERT_TRUE(WaitFor(loop, [&] { return box.closed.size() == 2; }));
    EXPECT_THAT(box.closed, ElementsAre("the connection was closed", "cannot connect: Connection refused"));
}

TEST_F(SessionTlsTest, ARenewedCertificateCountsForTheNextConnection)
{
    StartBroker();
    for (const char *extension : {".pem", ".key"}) {
        std::filesystem::copy_file(File(std::string("expired-box") + extension),
                                   File(std::string("renewed") + extension));
    }
    TestSession box(loop, Options("renewed"));
    box->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return !box.closed.empty(); }));
    EXPECT_EQ(box.connections, 0);
    for (const char *extension : {".pem", ".key"}) {
        std::filesystem::copy_file(File(std::string("box") + extension), File(std::string("renewed") + extension),
                                   std::filesystem::copy_options::overwrite_existing);
    }
    ASSERT_TRUE(WaitFor(loop, [&] { return box.connections == 1; }));
}

TEST_F(SessionTlsTest, RefusesABrokerOfAnotherAuthority)
{
    StartBroker();
    EXPECT_THAT(Failure(Options("box", "other")), StartsWith("the certificate of the broker is not accepted: "));
}

TEST_F(SessionTlsTest, RefusesABrokerWithAnExpiredCertificate)
{
    StartBroker("expired-broker");
    EXPECT_EQ(Failure(Options()), "the certificate of the broker is not accepted: certificate has expired");
}

TEST_F(SessionTlsTest, RefusesABrokerWithTheCertificateOfAnotherHost)
{
    StartBroker("elsewhere");
    Session::Options options = Options();
    EXPECT_EQ(Failure(options), "the certificate of the broker is not accepted: IP address mismatch");
    options.endpoint.host = "localhost";
    EXPECT_EQ(Failure(options), "the certificate of the broker is not accepted: hostname mismatch");
}

TEST_F(SessionTlsTest, TellsThatTheBrokerRefusesAnExpiredCertificate)
{
    StartBroker();
    EXPECT_THAT(Failure(Options("expired-box")), HasSubstr("certificate expired"));
}

TEST_F(SessionTlsTest, TellsThatTheBrokerRefusesACertificateOfAnotherAuthority)
{
    StartBroker();
    EXPECT_THAT(Failure(Options("stranger")), HasSubstr("unknown ca"));
}

TEST_F(SessionTlsTest, TellsThatTheBrokerWantsACertificate)
{
    StartBroker();
    Session::Options options = Options();
    options.endpoint.certificate = options.endpoint.key = "";
    EXPECT_THAT(Failure(options), HasSubstr("certificate required"));
}

TEST_F(SessionTlsTest, TellsThatNobodyListens)
{
    StartBroker();
    broker->Kill();
    EXPECT_EQ(Failure(Options()), "cannot connect: Connection refused");
}

TEST_F(SessionTlsTest, TellsThatTheBrokerHasNoTls)
{
    broker = std::make_unique<TestBroker>();
    EXPECT_NE(Failure(Options()), "");
}

TEST_F(SessionTlsTest, TellsThatTheHandshakeFails)
{
    broker = std::make_unique<TestBroker>();
    ScriptedBroker scripted(loop);
    Session::Options options = Options();
    options.endpoint.port = scripted.Port();
    // The first byte of a handshake is taken for a CONNECT.
    scripted.onConnect = [&](std::string_view) { scripted.Close(); };
    EXPECT_THAT(Failure(options),
                testing::AnyOf("the connection was closed", "cannot connect: Connection reset by peer"));
    scripted.onConnect = [&](std::string_view) { scripted.Send("HTTP/1.1 400 Bad Request\r\n\r\n"); };
    EXPECT_EQ(Failure(options), "TLS: wrong version number");
}

TEST_F(SessionTlsTest, NamesTheFileThatCannotBeUsed)
{
    broker = std::make_unique<TestBroker>();
    const std::string missing = File("missing.pem");
    const std::string garbage = certificates->directory.Write("garbage.pem", "garbage\n");
    Session::Options options = Options();
    EXPECT_EQ(ConstructionError(loop, options), "constructed");
    options.endpoint.ca = missing;
    EXPECT_EQ(ConstructionError(loop, options), "ca " + missing + ": No such file or directory");
    options.endpoint.ca = garbage;
    EXPECT_THAT(ConstructionError(loop, options), StartsWith("ca " + garbage + ": "));
    options = Options();
    options.endpoint.certificate = missing;
    EXPECT_EQ(ConstructionError(loop, options), "certificate " + missing + ": No such file or directory");
    options.endpoint.certificate = garbage;
    EXPECT_THAT(ConstructionError(loop, options), StartsWith("certificate " + garbage + ": "));
    options = Options();
    options.endpoint.key = missing;
    EXPECT_EQ(ConstructionError(loop, options), "key " + missing + ": No such file or directory");
    options.endpoint.key = garbage;
    EXPECT_THAT(ConstructionError(loop, options), StartsWith("key " + garbage + ": "));
    options.endpoint.key = File("broker.key");
    EXPECT_EQ(ConstructionError(loop, options),
              "key " + File("broker.key") + ": does not fit the certificate " + File("box.pem"));
}

TEST_F(SessionTlsTest, RefusesAKeyOfAnotherKind)
{
    broker = std::make_unique<TestBroker>();
    RunProgram({"openssl", "genrsa", "-out", File("rsa.key"), "2048"});
    Session::Options options = Options();
    options.endpoint.key = File("rsa.key");
    EXPECT_EQ(ConstructionError(loop, options),
              "key " + File("rsa.key") + ": does not fit the certificate " + File("box.pem"));
}

TEST_F(SessionTlsTest, DoesNotAskForThePassphraseOfAKey)
{
    broker = std::make_unique<TestBroker>();
    RunProgram(
        {"openssl", "ec", "-in", File("box.key"), "-aes128", "-passout", "pass:secret", "-out", File("locked.key")});
    Session::Options options = Options();
    options.endpoint.key = File("locked.key");
    EXPECT_THAT(ConstructionError(loop, options), StartsWith("key " + File("locked.key") + ": "));
}

TEST_F(SessionTlsTest, WhatAFileLacksDuringAnAttemptIsTold)
{
    StartBroker();
    std::filesystem::copy_file(File("good.pem"), File("vanishing.pem"));
    TestSession box(loop, Options("box", "vanishing"));
    std::filesystem::remove(File("vanishing.pem"));
    box->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return !box.closed.empty(); }));
    EXPECT_THAT(box.closed, ElementsAre("ca " + File("vanishing.pem") + ": No such file or directory"));
    std::filesystem::copy_file(File("good.pem"), File("vanishing.pem"));
    ASSERT_TRUE(WaitFor(loop, [&] { return box.connections == 1; }));
}

} // namespace
} // namespace kavel::broker
