// Clients of the control socket that may only read, beside its owner.
#include "socket/control_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control_socket_fixture.h"

namespace kavel::agent {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(AccessTest, IsFullForRootAndTheAgentsUser)
{
    const uid_t own = ::geteuid();
    EXPECT_EQ(AccessOf({1, 0, {}}, {}), Access::kFull);
    EXPECT_EQ(AccessOf({1, own, {}}, {}), Access::kFull);
    EXPECT_EQ(AccessOf({1, 0, {4711}}, {4711, {}}), Access::kFull);
    EXPECT_EQ(AccessOf({1, own, {}}, {{}, {{0, Access::kStatus}, {own, Access::kStatus}}}), Access::kFull);
}

TEST(AccessTest, IsReadForAMemberOfTheGroup)
{
    const uid_t user = ::geteuid() + 1;
    const AdmittedPeers admitted{4711, {}};
    EXPECT_EQ(AccessOf({1, user, {5, 4711}}, admitted), Access::kRead);
    EXPECT_EQ(AccessOf({1, user, {5, 4712}}, admitted), Access::kNone);
    EXPECT_EQ(AccessOf({1, user, {}}, admitted), Access::kNone);
    EXPECT_EQ(AccessOf({1, user, {5, 4711}}, {}), Access::kNone);
}

// The clients that connect next are what `access_` says.
class ReadersTest : public ControlSocketTest {
  protected:
    ReadersTest()
    {
        socket_ = std::make_unique<ControlSocket>(
            loop_, path_, Handler(), AdmittedPeers{::getegid(), {}},
            [this](const Peer & /*peer*/, const AdmittedPeers & /*admitted*/) { return access_; });
    }

    TestClient &ConnectAs(Access access)
    {
        access_ = access;
        TestClient &client = Connect();
        DispatchReady(loop_);
        return client;
    }

    // Connects readers that are in the middle of a frame.
    void ConnectBusyReaders(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            ConnectAs(Access::kRead).Send({0, 0, 0, 9});
            DispatchReady(loop_);
        }
    }

    Access access_ = Access::kFull;
    LogCapture log_;
};

TEST_F(ReadersTest, TheFileIsForTheGroup)
{
    struct stat info {};
    ASSERT_EQ(::stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & ALLPERMS, 0660U);
    EXPECT_EQ(info.st_gid, ::getegid());
}

TEST_F(ReadersTest, AGroupThatTheFileCannotHaveLeavesItToTheOwner)
{
    if (::getegid() == 1) {
        GTEST_SKIP() << "the user is in the group";
    }
    socket_ = std::make_unique<ControlSocket>(loop_, path_, Handler(), AdmittedPeers{1, {}});
    struct stat info {};
    ASSERT_EQ(::stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & ALLPERMS, 0600U);
    EXPECT_THAT(log_.Take(),
                HasSubstr("cannot be given to group 1: Operation not permitted; its members may not connect"));
}

TEST_F(ReadersTest, PeersHaveTheGroupsOfTheirProcess)
{
    std::optional<Peer> seen;
    socket_ = std::make_unique<ControlSocket>(loop_, path_, Handler(), AdmittedPeers{::getegid(), {}},
                                              [&](const Peer &peer, const AdmittedPeers & /*admitted*/) {
                                                  seen = peer;
                                                  return Access::kNone;
                                              });
    EXPECT_TRUE(RunUntil(loop_, [&, &client = Connect()] { return client.HasEnded(); }));
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->pid, ::getpid());
    EXPECT_EQ(seen->user, ::geteuid());
    EXPECT_THAT(seen->groups, Contains(::getegid()));
}

TEST_F(ReadersTest, TheirFramesAreMarked)
{
    for (const auto &[access, mark] : {std::pair{Access::kRead, 1}, std::pair{Access::kFull, 2}}) {
        TestClient &client = ConnectAs(access);
        client.SendRequest(static_cast<std::uint8_t>(mark));
        AwaitReplies(client, 1);
        EXPECT_THAT(client.Results(), ElementsAre(mark));
    }
    EXPECT_THAT(marks_, ElementsAre(1, 2));
    EXPECT_THAT(readerMarks_, ElementsAre(1));
}

TEST_F(ReadersTest, TheirFramesAreShort)
{
    TestClient &client = ConnectAs(Access::kRead);
    client.Send(FrameOf(Bytes(ControlSocket::kShortFrameMax, 5)));
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(5));
    client.Send({0, 0, 0x10, 1, 7});
    AwaitReplies(client, 2);
    EXPECT_EQ(client.Results().back(), -EMSGSIZE);
    EXPECT_EQ(client.Text(), "a frame holds 4096 bytes at most");
    EXPECT_TRUE(client.HasEnded());
}

TEST_F(ReadersTest, FramesInOnePieceAreAllAnswered)
{
    TestClient &client = ConnectAs(Access::kRead);
    Bytes many;
    for (std::uint8_t mark = 1; mark <= 100; ++mark) {
        const Bytes frame = FrameOf(Bytes(500, mark));
        many.insert(many.end(), frame.begin(), frame.end());
    }
    client.Send(many);
    AwaitReplies(client, 100);
    EXPECT_EQ(client.Results().back(), 100);
}

TEST_F(ReadersTest, HalfOfTheSlotsAreForTheOwnerAlone)
{
    ConnectBusyReaders(32);
    EXPECT_TRUE(RunUntil(loop_, [&] { return ConnectAs(Access::kRead).HasEnded(); }));
    EXPECT_TRUE(RunUntil(loop_, [&] { return ConnectAs(Access::kRead).HasEnded(); }));
    for (std::size_t i = 0; i < 32; ++i) {
        TestClient &owner = ConnectAs(Access::kFull);
        owner.SendRequest(1);
        AwaitReplies(owner, 1);
        EXPECT_THAT(owner.Results(), ElementsAre(1)) << i;
    }
    EXPECT_FALSE(Client(0).HasEnded());
    const std::string log = log_.Take();
    const std::size_t told = log.find("32 readers are connected; more are turned away");
    EXPECT_NE(told, std::string::npos);
    EXPECT_EQ(log.find("turned away", told + 60), std::string::npos) << "told once";
}

TEST_F(ReadersTest, AReaderTakesTheSlotOfAnIdleReaderAlone)
{
    TestClient &owner = ConnectAs(Access::kFull);
    for (std::size_t i = 0; i < 32; ++i) {
        ConnectAs(Access::kRead);
    }
    TestClient &next = ConnectAs(Access::kRead);
    next.SendRequest(3);
    AwaitReplies(next, 1);
    EXPECT_THAT(next.Results(), ElementsAre(3));
    EXPECT_TRUE(Client(1).HasEnded());
    EXPECT_FALSE(Client(2).HasEnded());
    EXPECT_FALSE(owner.HasEnded());
}

TEST_F(ReadersTest, AnIdleReaderIsClosedBeforeAnIdleOwner)
{
    for (std::size_t i = 0; i < 63; ++i) {
        ConnectAs(Access::kFull);
    }
    TestClient &reader = ConnectAs(Access::kRead);
    reader.SendRequest(1);
    AwaitReplies(reader, 1);
    TestClient &next = ConnectAs(Access::kFull);
    next.SendRequest(2);
    AwaitReplies(next, 1);
    EXPECT_TRUE(reader.HasEnded());
    EXPECT_FALSE(Client(0).HasEnded());
}

// The agent works on for a client that has left.
TEST_F(ReadersTest, RequestsOfReadersThatLeftCount)
{
    answersAtOnce_ = false;
    for (std::uint8_t mark = 1; mark <= 32; ++mark) {
        ConnectAs(Access::kRead).SendRequest(mark);
        ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == mark; }));
        clients_.clear();
        DispatchReady(loop_);
    }
    TestClient &late = ConnectAs(Access::kRead);
    late.SendRequest(40);
    AwaitReplies(late, 1);
    EXPECT_THAT(late.Results(), ElementsAre(-EBUSY));
    EXPECT_EQ(late.Text(), "32 requests of readers are not answered yet");

    TestClient &owner = ConnectAs(Access::kFull);
    owner.SendRequest(41);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 33; }));
    AnswerKept(41);
    AnswerKept(7);
    late.SendRequest(42);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 32; }));
    AnswerKept(42);
    AwaitReplies(late, 2);
    EXPECT_THAT(late.Results(), ElementsAre(-EBUSY, 42));
}

TEST_F(ReadersTest, OthersAreTurnedAway)
{
    EXPECT_TRUE(RunUntil(loop_, [&, &client = ConnectAs(Access::kNone)] { return client.HasEnded(); }));
    EXPECT_THAT(marks_, IsEmpty());
    EXPECT_THAT(log_.Take(), HasSubstr("may not connect"));
}

} // namespace
} // namespace kavel::agent
