// Queries that are refused. The others need a network namespace.
#include <cerrno>
#include <gtest/gtest.h>

#include "requests_fixture.h"

namespace kavel::agent {
namespace {

Bytes PackQuery(std::optional<std::uint32_t> vpn, std::string name, std::optional<std::uint32_t> type = std::nullopt)
{
    Kavel__Request request = KAVEL__REQUEST__INIT;
    request.verb = KAVEL__REQUEST__VERB__QUERY;
    request.has_vpn = vpn ? 1 : 0;
    request.vpn = vpn.value_or(0);
    request.name = name.data();
    request.has_type = type ? 1 : 0;
    request.type = type.value_or(0);
    Bytes bytes(kavel__request__get_packed_size(&request));
    kavel__request__pack(&request, bytes.data());
    return bytes;
}

using QueryRequestsTest = RequestsTest;

TEST_F(QueryRequestsTest, AQueryNamesAVpn)
{
    const Answer answer = AnswerIn(Send(PackQuery(std::nullopt, "a.example")));
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.text, "no vpn is named");
}

TEST_F(QueryRequestsTest, AVpnThatIsNotConfiguredIsRefused)
{
    const Answer answer = AnswerIn(Send(PackQuery(unknown_, "a.example")));
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_TRUE(answer.isUnknownVpn);
}

TEST_F(QueryRequestsTest, WhatIsNoNameIsRefused)
{
    for (const char *name : {"", "a..example", ".example"}) {
        const Answer answer = AnswerIn(Send(PackQuery(vpnId_, name)));
        EXPECT_EQ(answer.result, -EINVAL);
        EXPECT_EQ(answer.text, "\"" + std::string(name) + "\" is not a domain name");
    }
}

TEST_F(QueryRequestsTest, WhatIsNoTypeIsRefused)
{
    for (const std::uint32_t type : {0U, 65536U}) {
        const Answer answer = AnswerIn(Send(PackQuery(vpnId_, "a.example", type)));
        EXPECT_EQ(answer.result, -EINVAL);
        EXPECT_EQ(answer.text, std::to_string(type) + " is not a type of records");
    }
}

TEST_F(QueryRequestsTest, WithoutANamespaceThereIsNothingToAsk)
{
    const Answer answer = AnswerIn(Send(PackQuery(vpnId_, "a.example")));
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_FALSE(answer.isUnknownVpn);
    ASSERT_TRUE(answer.text.has_value());
    EXPECT_NE(answer.text->find(" does not exist"), std::string::npos);
}

} // namespace
} // namespace kavel::agent
