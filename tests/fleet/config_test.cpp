#include "config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "fleet_samples.h"
#include "input_error.h"

namespace kavel::fleet {
namespace {

using testing::HasSubstr;

constexpr const char *kFile = R"({"broker": {"host": "b.example", "port": 8884, "ca": "/ca.pem",
    "certificate": "/c.pem", "key": "/c.key"}, "name": "controller"})";

template <typename Work>
std::string SettingsErrorOf(Work work)
{
    try {
        work();
    } catch (const InputError &error) {
        return error.what();
    }
    return "";
}

std::string ParseErrorOf(const std::string &text)
{
    return SettingsErrorOf([&text] { (void)ParseSettings(text); });
}

TEST(FleetConfig, AWholeFile)
{
    const Settings settings = ParseSettings(kFile);
    EXPECT_EQ(settings.endpoint.host, "b.example");
    EXPECT_EQ(settings.endpoint.port, 8884);
    EXPECT_EQ(settings.endpoint.ca, "/ca.pem");
    EXPECT_EQ(settings.endpoint.certificate, "/c.pem");
    EXPECT_EQ(settings.endpoint.key, "/c.key");
    EXPECT_EQ(settings.name, "controller");
}

TEST(FleetConfig, WhatIsWrongIsNamed)
{
    EXPECT_THAT(ParseErrorOf("{"), HasSubstr("line 1"));
    EXPECT_EQ(ParseErrorOf("{}"), "broker: is missing");
    EXPECT_EQ(ParseErrorOf(R"({"broker": {}, "nme": "x"})"), "nme: unknown key; did you mean \"name\"?");
    EXPECT_THAT(ParseErrorOf(R"({"broker": {"port": 65536}})"),
                HasSubstr("broker.port: expected a number from 1 to 65535, not 65536"));
    EXPECT_THAT(ParseErrorOf(R"({"broker": {"port": 0}})"), HasSubstr("broker.port: expected a number from 1"));
    EXPECT_THAT(ParseErrorOf(R"({"broker": {"host": ""}})"),
                HasSubstr("broker.host: expected a host name or an address"));
    EXPECT_THAT(ParseErrorOf(R"({"broker": {"ca": "ca.pem"}})"), HasSubstr("broker.ca: expected an absolute path"));
    EXPECT_THAT(ParseErrorOf(R"({"broker": {}, "name": "a/b"})"), HasSubstr("name: \"a/b\" cannot be a level"));
}

TEST(FleetConfig, OptionsCountMoreThanTheFile)
{
    const ScratchDir scratch;
    BrokerOptions options;
    options.config = scratch.Write("fleet.json", kFile);
    options.host = "other.example";
    options.key = "/other.key";
    const Settings settings = LoadSettings(options);
    EXPECT_EQ(settings.endpoint.host, "other.example");
    EXPECT_EQ(settings.endpoint.port, 8884);
    EXPECT_EQ(settings.endpoint.key, "/other.key");
    EXPECT_EQ(settings.endpoint.certificate, "/c.pem");
}

TEST(FleetConfig, NothingIsSentWithoutTls)
{
    const ScratchDir scratch;
    BrokerOptions options;
    options.config = scratch.Write("fleet.json", R"({"broker": {"host": "b.example"}})");
    EXPECT_EQ(SettingsErrorOf([&] { (void)LoadSettings(options); }),
              "--ca: is missing, and so is broker.ca in " + *options.config);
    options.ca = "/ca.pem";
    options.certificate = "/c.pem";
    EXPECT_EQ(SettingsErrorOf([&] { (void)LoadSettings(options); }),
              "--key: is missing, and so is broker.key in " + *options.config);
}

TEST(FleetConfig, AFileThatCannotBeUsedIsNamed)
{
    const ScratchDir scratch;
    BrokerOptions options;
    options.config = scratch.Path("none");
    EXPECT_EQ(SettingsErrorOf([&] { (void)LoadSettings(options); }),
              *options.config + ": cannot be opened: No such file or directory");
    options.config = scratch.Write("bad", "[]");
    EXPECT_THAT(SettingsErrorOf([&] { (void)LoadSettings(options); }), testing::StartsWith(*options.config + ": "));
}

TEST(FleetConfig, TheNameIsTheCommonNameOfTheCertificate)
{
    const ScratchDir scratch;
    const std::string file = scratch.Write("c.pem", "no certificate\n");
    EXPECT_EQ(SettingsErrorOf([&] { (void)CommonNameOf(file); }), file + ": holds no certificate in PEM format");
    EXPECT_EQ(SettingsErrorOf([&] { (void)CommonNameOf(scratch.Path("none")); }),
              scratch.Path("none") + ": cannot be opened: No such file or directory");
    // A self-signed certificate of CN=controller.
    const std::string good = scratch.Write("good.pem", R"(-----BEGIN CERTIFICATE-----
MIIBgjCCASegAwIBAgIUMZZW15EpcQSNhU3y4qBuZ4uu2s4wCgYIKoZIzj0EAwIw
FTETMBEGA1UEAwwKY29udHJvbGxlcjAgFw0yNjExMjMwMjE3MDFaGA8yMTI2MTAz
MDAyMTcwMVowFTETMBEGA1UEAwwKY29udHJvbGxlcjBZMBMGByqGSM49AgEGCCqG
SM49AwEHA0IABLw3Ky3jTbE9+uGnk6DvQcMQPB2NC+j8ro8aFjAjypZLM9mHiMmq
OK1GKnDdxw9kda1AVXLZe7jjAVeCW2G/KcyjUzBRMB0GA1UdDgQWBBShJQzkvI1l
p11qGgWWa/aVk8xEWTAfBgNVHSMEGDAWgBShJQzkvI1lp11qGgWWa/aVk8xEWTAP
BgNVHRMBAf8EBTADAQH/MAoGCCqGSM49BAMCA0kAMEYCIQCCMtzD2wX/iJdAQR1q
FtAfc0QsJLrzfU5IGJ9IptqEjwIhAIWlbSX89my4Y6w8Qji5qrcxw/x2wvAejxKx
zt5dn8bD
-----END CERTIFICATE-----
)");
    EXPECT_EQ(CommonNameOf(good), "controller");
}

TEST(FleetConfig, NamesThatCanBeALevelOfATopic)
{
    for (const char *name : {"a", "the controller", "c.1_-", "Büro"}) {
        EXPECT_TRUE(IsClientName(name)) << name;
    }
    for (const char *name : {"", "a/b", "+", "a#", "$SYS", "a\nb", "\xff"}) {
        EXPECT_FALSE(IsClientName(name)) << name;
    }
    EXPECT_TRUE(IsClientName(std::string(64, 'x')));
    EXPECT_FALSE(IsClientName(std::string(65, 'x')));
}

} // namespace
} // namespace kavel::fleet
