#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "contract_test.h"
#include "vqNetns.h"

namespace kavel::contract {
namespace {

constexpr std::size_t kRoom = 512;

// The prefix of a VPN, in a buffer of the module's size.
std::string PrefixOf(std::uint32_t vpn)
{
    std::vector<char> buffer(kRoom, '#');
    const VQ_ERR_T length = VQ_RtcGetNetNsExecCmdPrefix(vpn, buffer.data(), buffer.size());
    EXPECT_GT(length, 0);
    EXPECT_EQ(static_cast<std::size_t>(length), std::string(buffer.data()).size());
    return buffer.data();
}

std::string SocketTable()
{
    std::string text;
    std::FILE *const stream = std::fopen("/proc/net/tcp", "re");
    if (stream == nullptr) {
        return text;
    }
    std::array<char, 4096> piece{};
    for (std::size_t size = 1; size > 0;) {
        size = std::fread(piece.data(), 1, piece.size(), stream);
        text.append(piece.data(), size);
    }
    static_cast<void>(std::fclose(stream));
    return text;
}

class NetworkNamespaces : public ContractTest {};

TEST_F(NetworkNamespaces, AreEnteredAndLeft)
{
    PROMISE(kNetnsSwitch);
    PROMISE(kNetnsSwitchBack);
    int saved = -1;
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kVpn, &saved), 0);
    EXPECT_EQ(world().CurrentVpn(), kVpn);
    EXPECT_GE(saved, 0);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_EQ(world().CurrentVpn(), 0U);
    EXPECT_EQ(saved, -1);
}

TEST_F(NetworkNamespaces, VpnZeroIsTheNamespaceInWhichTheAgentStarted)
{
    PROMISE(kNetnsBox);
    int saved = -1;
    int inner = -1;
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kVpn, &saved), 0);
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(0, &inner), 0);
    EXPECT_EQ(world().CurrentVpn(), 0U);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&inner), 0);
    EXPECT_EQ(world().CurrentVpn(), kVpn);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_EQ(world().CurrentVpn(), 0U);
}

// The saved namespace is the current one, not the initial one.
TEST_F(NetworkNamespaces, SwitchesCanBeNested)
{
    int outer = -1;
    int middle = -1;
    int inner = -1;
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kVpn, &outer), 0);
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kOtherVpn, &middle), 0);
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kLastVpn, &inner), 0);
    EXPECT_EQ(world().CurrentVpn(), kLastVpn);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&inner), 0);
    EXPECT_EQ(world().CurrentVpn(), kOtherVpn);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&middle), 0);
    EXPECT_EQ(world().CurrentVpn(), kVpn);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&outer), 0);
    EXPECT_EQ(world().CurrentVpn(), 0U);
}

TEST_F(NetworkNamespaces, UnknownVpnKeepsTheCurrentNamespace)
{
    PROMISE(kNetnsSwitchUnknown);
    int saved = -1;
    EXPECT_EQ(VQ_RtcNetNsSaveAndSwitch(kUnknownVpn, &saved), -ENOENT);
    EXPECT_EQ(saved, -1);
    EXPECT_EQ(world().CurrentVpn(), 0U);
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kVpn, &saved), 0);
    int inner = -1;
    EXPECT_EQ(VQ_RtcNetNsSaveAndSwitch(kUnknownVpn, &inner), -ENOENT);
    EXPECT_EQ(inner, -1);
    EXPECT_EQ(world().CurrentVpn(), kVpn);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&saved), 0);
}

TEST_F(NetworkNamespaces, SwitchBackNeedsAHandle)
{
    world().AllowUnusualUse();
    int saved = -1;
    EXPECT_LT(VQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kVpn, &saved), 0);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_LT(VQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_EQ(world().CurrentVpn(), 0U);
}

// The module reads this table to find a port that is in use.
TEST_F(NetworkNamespaces, SocketTableIsThatOfTheCurrentNamespace)
{
    world().Listen(kVpn, 5353);
    world().Listen(kOtherVpn, 5354);
    int saved = -1;
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kVpn, &saved), 0);
    EXPECT_THAT(SocketTable(), testing::HasSubstr(":14E9 "));
    EXPECT_THAT(SocketTable(), testing::Not(testing::HasSubstr(":14EA ")));
    int inner = -1;
    EXPECT_GE(VQ_RtcNetNsSaveAndSwitch(kOtherVpn, &inner), 0);
    EXPECT_THAT(SocketTable(), testing::HasSubstr(":14EA "));
    EXPECT_THAT(SocketTable(), testing::Not(testing::HasSubstr(":14E9 ")));
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&inner), 0);
    EXPECT_GE(VQ_RtcNetNsSwitchToDefault(&saved), 0);
}

TEST_F(NetworkNamespaces, CommandPrefixEndsInABlank)
{
    PROMISE(kNetnsPrefixBlank);
    for (const std::uint32_t vpn : {kVpn, kOtherVpn, kLastVpn}) {
        EXPECT_THAT(PrefixOf(vpn), testing::EndsWith(" "));
    }
    EXPECT_NE(PrefixOf(kVpn), PrefixOf(kOtherVpn));
}

TEST_F(NetworkNamespaces, CommandPrefixLeavesRoomForTheLaunch)
{
    PROMISE(kNetnsPrefixFits);
    constexpr std::size_t kLaunchLength = 165; // with a VPN of ten digits
    for (const std::uint32_t vpn : {kVpn, kOtherVpn, kLastVpn}) {
        EXPECT_LT(PrefixOf(vpn).size() + kLaunchLength, kRoom);
    }
}

TEST_F(NetworkNamespaces, UnknownVpnHasNoCommandPrefix)
{
    PROMISE(kNetnsPrefixUnknown);
    std::vector<char> buffer(kRoom, '\0');
    EXPECT_EQ(VQ_RtcGetNetNsExecCmdPrefix(kUnknownVpn, buffer.data(), buffer.size()), -ENOENT);
}

TEST_F(NetworkNamespaces, CommandPrefixFitsOrIsReportedAsTooLong)
{
    PROMISE(kNetnsPrefixLength);
    PROMISE(kNetnsPrefixShort);
    const std::string prefix = PrefixOf(kVpn);
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, prefix.size() - 1, prefix.size(), prefix.size() + 1, prefix.size() + 2}) {
        std::vector<char> buffer(prefix.size() + 4, '#');
        const VQ_ERR_T result = VQ_RtcGetNetNsExecCmdPrefix(kVpn, buffer.data(), size);
        if (size > prefix.size()) {
            EXPECT_EQ(result, static_cast<VQ_ERR_T>(prefix.size())) << size;
            EXPECT_EQ(buffer.data(), prefix);
        } else {
            // The module treats both results as a prefix that does not fit.
            EXPECT_TRUE(result < 0 || static_cast<std::size_t>(result) >= size) << result << " in " << size;
        }
        EXPECT_EQ(std::string(buffer.begin() + static_cast<std::ptrdiff_t>(size), buffer.end()),
                  std::string(buffer.size() - size, '#'))
            << size;
    }
}

} // namespace
} // namespace kavel::contract
