// Clients of the control socket that are users of the system, beside its owner.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "control.pb-c.h"
#include "control_socket_fixture.h"
#include "socket/client_limits.h"
#include "socket/control_socket.h"
#include "socket/peer.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t kFirst = 4711;
constexpr uid_t kSecond = 4712;
constexpr Access kBoth = Access::kApply | Access::kStatus;

TEST(UserAccessTest, IsWhatTheUserIsAdmittedFor)
{
    const uid_t user = ::geteuid() + 1;
    const AdmittedPeers admitted{99, {{user, Access::kApply}, {user + 1, kBoth}}};
    EXPECT_EQ(AccessOf({1, user, {}}, admitted), Access::kApply);
    EXPECT_EQ(AccessOf({1, user + 1, {5}}, admitted), kBoth);
    EXPECT_EQ(AccessOf({1, user + 2, {}}, admitted), Access::kNone);
    EXPECT_EQ(AccessOf({1, user, {99}}, admitted), Access::kApply | Access::kRead) << "it is a reader, too";
}

TEST(UserAccessTest, AllowsItsVerbsAlone)
{
    const auto allowed = [](Access access) {
        std::vector<std::int32_t> verbs;
        for (std::int32_t verb = -1; verb <= 40; ++verb) {
            if (IsAllowed(verb, access)) {
                verbs.push_back(verb);
            }
        }
        return verbs;
    };
    constexpr std::int32_t kApply = KAVEL__REQUEST__VERB__APPLY;
    constexpr std::int32_t kCheck = KAVEL__REQUEST__VERB__CHECK;
    constexpr std::int32_t kStatus = KAVEL__REQUEST__VERB__STATUS;
    constexpr std::int32_t kWhy = KAVEL__REQUEST__VERB__WHY;
    constexpr std::int32_t kMetrics = KAVEL__REQUEST__VERB__METRICS;
    EXPECT_THAT(allowed(Access::kNone), IsEmpty());
    EXPECT_THAT(allowed(Access::kApply), ElementsAre(kApply, kCheck));
    EXPECT_THAT(allowed(Access::kStatus), ElementsAre(kStatus));
    EXPECT_THAT(allowed(kBoth), ElementsAre(kApply, kCheck, kStatus));
    EXPECT_THAT(allowed(Access::kRead), ElementsAre(kStatus, kWhy, kMetrics));
    EXPECT_THAT(allowed(Access::kApply | Access::kRead), ElementsAre(kApply, kCheck, kStatus, kWhy, kMetrics));
    EXPECT_EQ(allowed(Access::kFull).size(), 42U);
}

TEST(UserAccessTest, ARefusalNamesWhatIsAllowed)
{
    const std::string start = "only root may do this; this user may ask for ";
    EXPECT_EQ(RefusalText(Access::kStatus), start + "status");
    EXPECT_EQ(RefusalText(Access::kApply), start + "apply and check");
    EXPECT_EQ(RefusalText(kBoth), start + "apply, check and status");
    EXPECT_EQ(RefusalText(Access::kRead), start + "status, why and metrics");
}

TEST(AdmittedByTest, UsersAndGroupsThatDoNotExistAreToldAndLeftOut)
{
    LogCapture log;
    Config config;
    config.readers = "no-such-group";
    config.users = {{"no-such-user", true, false, "users[0]"},
                    {"daemon", true, false, "users[1]"},
                    {"nobody", true, true, "users[2]"}};
    const AdmittedPeers admitted = AdmittedBy(config);
    EXPECT_EQ(admitted.readers, std::nullopt);
    EXPECT_THAT(admitted.users, ElementsAre(testing::Pair(1U, Access::kApply), testing::Pair(65534U, kBoth)));
    const std::string lines = log.Take();
    EXPECT_THAT(lines, HasSubstr("ERROR readers: group no-such-group: does not exist; its members may not connect\n"));
    EXPECT_THAT(lines, HasSubstr("ERROR users[0].name: user no-such-user: does not exist; it may not connect\n"));
}

// The clients that connect next are what `peer_` and `access_` say.
class UsersTest : public ControlSocketTest {
  protected:
    UsersTest()
    {
        socket_ = std::make_unique<ControlSocket>(loop_, path_, CountingHandler(),
                                                  AdmittedPeers{{}, {{kFirst, kBoth}, {kSecond, Access::kStatus}}},
                                                  [this](const Peer &peer, const AdmittedPeers & /*admitted*/) {
                                                      // The kernel tells this process for every client of the test.
                                                      const_cast<Peer &>(peer).user = user_;
                                                      return access_;
                                                  });
    }

    ControlSocket::Handler CountingHandler()
    {
        return [this, handler = Handler()](const ReceivedFrame &frame, const Respond &respond) {
            rights_.push_back(frame.access);
            handler(frame, respond);
        };
    }

    TestClient &ConnectAs(Access access, uid_t user = 0)
    {
        access_ = access;
        user_ = user;
        TestClient &client = Connect();
        DispatchReady(loop_);
        return client;
    }
    // In the middle of a frame, so that it is not idle.
    TestClient &ConnectBusy(Access access, uid_t user)
    {
        TestClient &client = ConnectAs(access, user);
        client.Send({0, 0, 0, 9});
        DispatchReady(loop_);
        return client;
    }
    [[nodiscard]] bool IsTurnedAway(Access access, uid_t user)
    {
        access_ = access;
        user_ = user;
        TestClient &client = Connect();
        client.SendRequest(1);
        return RunUntil(loop_, [&] { return client.HasEnded() || !client.Results().empty(); }) &&
               client.Results().empty();
    }

    Access access_ = Access::kFull;
    uid_t user_ = 0;
    std::vector<Access> rights_;
    LogCapture log_;
};

TEST_F(UsersTest, TheFileHasAListOfThemAndIsForNobodyElse)
{
    struct stat info {};
    ASSERT_EQ(::stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & ALLPERMS, 0660U) << "the bits of the group are the mask of the list";
    std::array<std::uint8_t, 256> list{};
    const ssize_t size = ::getxattr(path_.c_str(), "system.posix_acl_access", list.data(), list.size());
    // A version, then a tag, rights and an id: the owner, the users, the group, the mask, the others.
    const Bytes expected{2,  0, 0, 0,                                                                //
                         1,  0, 6, 0, 0xFF, 0xFF, 0xFF, 0xFF, 2,    0, 6, 0, 0x67, 0x12, 0,    0,    //
                         2,  0, 6, 0, 0x68, 0x12, 0,    0,    4,    0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, //
                         16, 0, 6, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x20, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    ASSERT_GT(size, 0);
    EXPECT_EQ(Bytes(list.begin(), list.begin() + size), expected);
}

TEST_F(UsersTest, WithReadersTheListHasTheirGroup)
{
    socket_ = std::make_unique<ControlSocket>(loop_, path_, Handler(),
                                              AdmittedPeers{::getegid(), {{kFirst, Access::kApply}}});
    std::array<std::uint8_t, 256> list{};
    const ssize_t size = ::getxattr(path_.c_str(), "system.posix_acl_access", list.data(), list.size());
    ASSERT_EQ(size, 44);
    EXPECT_EQ(Bytes(list.begin() + 20, list.begin() + 24), (Bytes{4, 0, 6, 0}));
}

TEST_F(UsersTest, TheirFramesCarryTheirRights)
{
    for (const auto &[access, mark] : {std::pair{kBoth, 1}, std::pair{Access::kFull, 2}}) {
        TestClient &client = ConnectAs(access, kFirst);
        client.SendRequest(static_cast<std::uint8_t>(mark));
        AwaitReplies(client, 1);
    }
    EXPECT_THAT(rights_, ElementsAre(kBoth, Access::kFull));
}

TEST_F(UsersTest, OnlyThoseWhoApplyMaySendLongFrames)
{
    TestClient &applies = ConnectAs(Access::kApply, kFirst);
    applies.Send(FrameOf(Bytes(100'000, 5)));
    AwaitReplies(applies, 1);
    EXPECT_THAT(applies.Results(), ElementsAre(5));
    TestClient &asks = ConnectAs(Access::kStatus, kSecond);
    asks.Send({0, 0, 0x10, 1, 7});
    AwaitReplies(asks, 1);
    EXPECT_THAT(asks.Results(), ElementsAre(-EMSGSIZE));
}

TEST_F(UsersTest, AUserHasFourConnections)
{
    for (std::size_t i = 0; i < 4; ++i) {
        ConnectBusy(kBoth, kFirst);
    }
    EXPECT_TRUE(IsTurnedAway(kBoth, kFirst));
    EXPECT_TRUE(IsTurnedAway(kBoth, kFirst));
    EXPECT_FALSE(IsTurnedAway(Access::kStatus, kSecond));
    EXPECT_FALSE(IsTurnedAway(Access::kRead, 5));
    EXPECT_FALSE(IsTurnedAway(Access::kFull, 0));
    const std::string log = log_.Take();
    const std::size_t told = log.find("4 clients of user 4711 are connected; more are turned away");
    EXPECT_NE(told, std::string::npos);
    EXPECT_EQ(log.find("turned away", told + 60), std::string::npos) << "told once";
}

TEST_F(UsersTest, AnIdleConnectionOfTheUserIsClosedForItsNext)
{
    TestClient &other = ConnectAs(kBoth, kSecond);
    for (std::size_t i = 0; i < 4; ++i) {
        ConnectAs(kBoth, kFirst);
    }
    TestClient &next = ConnectAs(kBoth, kFirst);
    next.SendRequest(3);
    AwaitReplies(next, 1);
    EXPECT_THAT(next.Results(), ElementsAre(3));
    EXPECT_TRUE(Client(1).HasEnded());
    EXPECT_FALSE(Client(2).HasEnded());
    EXPECT_FALSE(other.HasEnded());
}

TEST_F(UsersTest, AllUsersAndReadersTogetherLeaveConnectionsToTheOwner)
{
    for (std::size_t i = 0; i < kReadersMax; ++i) {
        ConnectBusy(Access::kRead, 5);
    }
    for (uid_t user = 0; user < kUsersMax / kUserMax; ++user) {
        for (std::size_t i = 0; i < kUserMax; ++i) {
            ConnectBusy(kBoth, kFirst + user);
        }
    }
    EXPECT_TRUE(IsTurnedAway(kBoth, kFirst + 99));
    EXPECT_THAT(log_.Take(), HasSubstr("16 clients of users are connected; more are turned away"));
    for (int i = 0; i < 16; ++i) {
        TestClient &owner = ConnectAs(Access::kFull);
        owner.SendRequest(1);
        AwaitReplies(owner, 1);
        EXPECT_THAT(owner.Results(), ElementsAre(1)) << i;
    }
}

TEST_F(UsersTest, AnIdleReaderIsClosedBeforeAnIdleUserAndTheUserBeforeTheOwner)
{
    for (std::size_t i = 0; i < 62; ++i) {
        ConnectAs(Access::kFull);
    }
    TestClient &user = ConnectAs(kBoth, kFirst);
    TestClient &reader = ConnectAs(Access::kRead, 5);
    const auto useNext = [this] {
        TestClient &next = ConnectAs(Access::kFull);
        next.SendRequest(2);
        AwaitReplies(next, 1);
    };
    useNext();
    EXPECT_TRUE(reader.HasEnded());
    EXPECT_FALSE(user.HasEnded());
    useNext();
    EXPECT_TRUE(user.HasEnded());
    EXPECT_FALSE(Client(0).HasEnded());
}

// The agent works on for a client that has left.
TEST_F(UsersTest, FourRequestsOfAUserAreUnansweredAtMost)
{
    answersAtOnce_ = false;
    for (std::uint8_t mark = 1; mark <= 4; ++mark) {
        ConnectAs(kBoth, kFirst).SendRequest(mark);
        ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == mark; }));
        clients_.clear();
        DispatchReady(loop_);
    }
    TestClient &late = ConnectAs(kBoth, kFirst);
    late.SendRequest(40);
    AwaitReplies(late, 1);
    EXPECT_THAT(late.Results(), ElementsAre(-EBUSY));
    EXPECT_EQ(late.Text(), "4 requests of this user are not answered yet");

    TestClient &owner = ConnectAs(Access::kFull);
    owner.SendRequest(41);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 5; }));
    AnswerKept(2);
    late.SendRequest(42);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 5; }));
    AnswerKept(42);
    AwaitReplies(late, 2);
    EXPECT_THAT(late.Results(), ElementsAre(-EBUSY, 42));
}

TEST_F(UsersTest, TheirUnfinishedFramesDoNotTakeTheMemoryOfOthers)
{
    const Bytes part = FrameOf(Bytes(control::kFrameMax, 1));
    const std::span<const std::uint8_t> unfinished(part.data(), part.size() - 1);
    std::size_t dismissed = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        TestClient &client = ConnectAs(kBoth, kFirst);
        std::size_t sent = 0;
        while (sent < unfinished.size() && client.Results().empty()) {
            const std::size_t piece = std::min<std::size_t>(65536, unfinished.size() - sent);
            client.Send(Bytes(unfinished.begin() + static_cast<std::ptrdiff_t>(sent),
                              unfinished.begin() + static_cast<std::ptrdiff_t>(sent + piece)));
            sent += piece;
            DispatchReady(loop_);
        }
        dismissed += client.Results().empty() ? 0 : 1;
        if (!client.Results().empty()) {
            EXPECT_EQ(client.Results().front(), -ENOBUFS);
            EXPECT_EQ(client.Text(), "the unfinished frames of all users would take more than 33554432 bytes");
        }
    }
    EXPECT_EQ(dismissed, 1U);
    TestClient &owner = ConnectAs(Access::kFull);
    owner.Send(FrameOf(Bytes(200'000, 9)));
    AwaitReplies(owner, 1);
    EXPECT_THAT(owner.Results(), ElementsAre(9));
}

TEST(UnansweredRequestsTest, TheLimitsOfUsers)
{
    UnansweredRequests unanswered;
    const auto share = [](uid_t user, std::size_t bytes) { return RequestShare{ClientKind::kUser, user, bytes}; };
    unanswered.Begin(share(1, kUsersBytesMax - 100));
    EXPECT_EQ(unanswered.Objection(share(2, 100)), std::nullopt);
    EXPECT_EQ(unanswered.Objection(share(2, 101)),
              "the unanswered requests of users would take more than 33554432 bytes");
    EXPECT_EQ(unanswered.Objection({ClientKind::kOwner, 0, kUsersBytesMax}), std::nullopt);
    unanswered.End(share(1, kUsersBytesMax - 100));
    for (uid_t user = 1; user <= 2; ++user) {
        for (std::size_t i = 0; i < kUserMax; ++i) {
            EXPECT_EQ(unanswered.Objection(share(user, 1)), std::nullopt);
            unanswered.Begin(share(user, 1));
        }
    }
    EXPECT_EQ(unanswered.Objection(share(1, 1)), "4 requests of this user are not answered yet");
    EXPECT_EQ(unanswered.Objection(share(3, 1)), "8 requests of users are not answered yet");
    unanswered.End(share(2, 1));
    EXPECT_EQ(unanswered.Objection(share(3, 1)), std::nullopt);
    EXPECT_EQ(unanswered.Objection({ClientKind::kReader, 5, 1}), std::nullopt);
}

} // namespace
} // namespace kavel::agent
