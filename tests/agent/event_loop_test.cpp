#include "event_loop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "scratch.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = EventLoop::Clock;

// Longer than any test takes.
constexpr auto kNever = 60s;

// Two connected sockets: one side is watched, the other makes it ready.
struct Connection {
    Connection()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
        watched = UniqueFd(ends[0]);
        peer = UniqueFd(ends[1]);
    }
    void Send() const { EXPECT_EQ(::write(peer.Get(), "x", 1), 1); }
    void Take() const
    {
        char byte = 0;
        EXPECT_EQ(::read(watched.Get(), &byte, 1), 1);
    }

    UniqueFd watched;
    UniqueFd peer;
};

// Blocks a signal for a scope; one that is pending at its end is dropped.
class BlockedSignal {
  public:
    explicit BlockedSignal(int signal)
    {
        sigemptyset(&set_);
        sigaddset(&set_, signal);
        ::pthread_sigmask(SIG_BLOCK, &set_, &before_);
    }
    BlockedSignal(const BlockedSignal &) = delete;
    BlockedSignal &operator=(const BlockedSignal &) = delete;
    ~BlockedSignal()
    {
        constexpr timespec kNow{};
        while (::sigtimedwait(&set_, nullptr, &kNow) > 0) {
        }
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

  private:
    sigset_t set_{};
    sigset_t before_{};
};

class EventLoopTest : public testing::Test {
  protected:
    // Dispatches what is ready now and what that makes ready: sources take turns, so each gets its turn.
    void Drain()
    {
        int turns = 0;
        EventSource turn;
        turn = loop_.AddDeferred([&] {
            ++turns;
            turn.Enable();
        });
        turn.Enable();
        EXPECT_TRUE(loop_.RunUntil([&] { return turns >= 20; }));
    }
    // Dispatches until `count` handlers have noted something. Fails the test after a long time.
    void RunUntilNoted(std::size_t count)
    {
        EventSource timeout = loop_.AddTimer([] { throw std::runtime_error("nothing happened"); });
        timeout.ArmTimer(Clock::now() + kNever);
        EXPECT_TRUE(loop_.RunUntil([&] { return noted_.size() >= count; }));
    }
    // Notes and takes each byte that the peer sends.
    EventSource WatchAndTake(const Connection &connection)
    {
        return loop_.AddIo(connection.watched.Get(), EPOLLIN, [&](std::uint32_t) {
            connection.Take();
            noted_.emplace_back("io");
        });
    }
    std::function<void()> Note(const std::string &name)
    {
        return [this, name] { noted_.push_back(name); };
    }

    EventLoop loop_;
    std::vector<std::string> noted_;
};

TEST_F(EventLoopTest, AnEventSourceIsEmptyUntilItIsAssigned)
{
    EventSource source;
    EXPECT_FALSE(source);
    source = loop_.AddTimer([] {});
    EXPECT_TRUE(source);
    const EventSource moved = std::move(source);
    EXPECT_TRUE(moved);
    EXPECT_FALSE(source); // NOLINT(bugprone-use-after-move): that it is empty is what is checked
}

TEST_F(EventLoopTest, PassesTheIoEventsToTheHandler)
{
    Connection connection;
    std::uint32_t seen = 0;
    const EventSource source = loop_.AddIo(connection.watched.Get(), EPOLLIN | EPOLLOUT, [&](std::uint32_t events) {
        seen = events;
        loop_.Exit();
    });
    connection.Send();
    loop_.Run();
    EXPECT_EQ(seen, EPOLLIN | EPOLLOUT);
}

TEST_F(EventLoopTest, CallsAnIoHandlerForAsLongAsItIsReady)
{
    const Connection connection;
    const EventSource source = WatchAndTake(connection);
    Drain();
    EXPECT_THAT(noted_, IsEmpty());
    connection.Send();
    connection.Send();
    RunUntilNoted(2);
    Drain();
    EXPECT_EQ(noted_.size(), 2U);
}

TEST_F(EventLoopTest, ASourceWithoutIoEventsIsSilent)
{
    const Connection connection;
    EventSource source = WatchAndTake(connection);
    connection.Send();
    source.SetIoEvents(0);
    Drain();
    EXPECT_THAT(noted_, IsEmpty());
    source.SetIoEvents(EPOLLIN);
    Drain();
    EXPECT_THAT(noted_, ElementsAre("io"));
}

TEST_F(EventLoopTest, ADisabledSourceIsSilentUntilItIsEnabled)
{
    const Connection connection;
    EventSource source = WatchAndTake(connection);
    connection.Send();
    source.Disable();
    Drain();
    EXPECT_THAT(noted_, IsEmpty());
    source.Enable();
    Drain();
    EXPECT_THAT(noted_, ElementsAre("io"));
}

TEST_F(EventLoopTest, DestroyingASourceEndsItsRegistration)
{
    const Connection connection;
    {
        const EventSource source = WatchAndTake(connection);
        connection.Send();
    }
    Drain();
    EXPECT_THAT(noted_, IsEmpty());
}

TEST_F(EventLoopTest, DispatchesASignalBeforeOtherSources)
{
    const BlockedSignal blocked(SIGUSR1);
    const Connection connection;
    const EventSource io = loop_.AddIo(connection.watched.Get(), EPOLLIN, [&](std::uint32_t) {
        connection.Take();
        Note("io")();
    });
    const EventSource signal = loop_.AddSignal(SIGUSR1, Note("signal"));
    connection.Send();
    ::raise(SIGUSR1);
    RunUntilNoted(2);
    EXPECT_THAT(noted_, ElementsAre("signal", "io"));
}

// Nobody reads what was sent, so the source is ready all the time. So is the deferred one that enables itself again.
TEST_F(EventLoopTest, ASourceThatIsAlwaysReadyStarvesNoOther)
{
    const Connection busy;
    const Connection other;
    const EventSource always = loop_.AddIo(busy.watched.Get(), EPOLLIN, [](std::uint32_t) {});
    const EventSource once = loop_.AddIo(other.watched.Get(), EPOLLIN, [&](std::uint32_t) {
        other.Take();
        Note("io")();
    });
    EventSource again;
    again = loop_.AddDeferred([&] { again.Enable(); });
    again.Enable();
    EventSource deferred = loop_.AddDeferred(Note("deferred"));
    EventSource timer = loop_.AddTimer(Note("timer"));
    deferred.Enable();
    timer.ArmTimer(Clock::now());
    busy.Send();
    other.Send();
    RunUntilNoted(3);
    EXPECT_THAT(noted_, testing::UnorderedElementsAre("io", "deferred", "timer"));
}

TEST_F(EventLoopTest, RefusesADescriptorThatCannotBeWatched)
{
    const auto ignore = [](std::uint32_t) {};
    EXPECT_EQ(FailureOf([&] { (void)loop_.AddIo(-1, EPOLLIN, ignore); }),
              (ThrownError{EBADF, "event source: Bad file descriptor"}));
    const ScratchDirectory directory;
    const UniqueFd file(::open(directory.Write("file", "").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(FailureOf([&] { (void)loop_.AddIo(file.Get(), EPOLLIN, ignore); }).error, EPERM);
}

TEST_F(EventLoopTest, ATimerIsDisarmedAtFirst)
{
    const EventSource timer = loop_.AddTimer(Note("timer"));
    Drain();
    std::this_thread::sleep_for(2ms);
    Drain();
    EXPECT_THAT(noted_, IsEmpty());
}

TEST_F(EventLoopTest, ATimerFiresAtItsTimeAndNotBefore)
{
    EventSource timer = loop_.AddTimer(Note("timer"));
    const auto when = Clock::now() + 20ms;
    timer.ArmTimer(when);
    Drain();
    EXPECT_TRUE(noted_.empty() || Clock::now() >= when);
    RunUntilNoted(1);
    EXPECT_GE(Clock::now(), when);
}

TEST_F(EventLoopTest, ATimerFiresOnceEachTimeItIsArmed)
{
    EventSource timer = loop_.AddTimer(Note("timer"));
    timer.ArmTimer(Clock::now());
    RunUntilNoted(1);
    Drain();
    std::this_thread::sleep_for(2ms);
    Drain();
    EXPECT_EQ(noted_.size(), 1U);
    timer.ArmTimer(Clock::now() + 1ms);
    RunUntilNoted(2);
}

TEST_F(EventLoopTest, ATimeInThePastFiresAtOnce)
{
    EventSource timer = loop_.AddTimer(Note("timer"));
    timer.ArmTimer(Clock::time_point::min());
    RunUntilNoted(1);
    timer.ArmTimer(Clock::now() - 1h);
    RunUntilNoted(2);
}

TEST_F(EventLoopTest, ATimerCanBeMovedAndDisarmed)
{
    EventSource timer = loop_.AddTimer(Note("timer"));
    timer.ArmTimer(Clock::now() + kNever);
    timer.ArmTimer(Clock::now() + 1ms);
    RunUntilNoted(1);
    timer.ArmTimer(Clock::now() + 1ms);
    timer.Disable();
    std::this_thread::sleep_for(5ms);
    Drain();
    EXPECT_EQ(noted_.size(), 1U);
}

TEST_F(EventLoopTest, ADeferredSourceRunsOnceEachTimeItIsEnabled)
{
    EventSource deferred = loop_.AddDeferred(Note("deferred"));
    Drain();
    EXPECT_THAT(noted_, IsEmpty());
    deferred.Enable();
    deferred.Enable();
    Drain();
    EXPECT_EQ(noted_.size(), 1U);
    deferred.Enable();
    Drain();
    EXPECT_EQ(noted_.size(), 2U);
    deferred.Enable();
    deferred.Disable();
    Drain();
    EXPECT_EQ(noted_.size(), 2U);
}

TEST_F(EventLoopTest, ADeferredSourceThatEnablesItselfRunsInALaterIteration)
{
    std::optional<EventSource> deferred;
    deferred = loop_.AddDeferred([&] {
        Note("deferred")();
        deferred->Enable();
    });
    deferred->Enable();
    RunUntilNoted(1);
    EXPECT_EQ(noted_.size(), 1U);
    RunUntilNoted(3);
    EXPECT_EQ(noted_.size(), 3U);
}

TEST_F(EventLoopTest, HandlesASignalThatWasPending)
{
    const BlockedSignal blocked(SIGUSR1);
    ::raise(SIGUSR1);
    const EventSource source = loop_.AddSignal(SIGUSR1, Note("signal"));
    RunUntilNoted(1);
    ::raise(SIGUSR1);
    RunUntilNoted(2);
    Drain();
    EXPECT_EQ(noted_.size(), 2U);
}

TEST_F(EventLoopTest, RefusesASignalThatIsNotBlocked)
{
    EXPECT_EQ(FailureOf([&] { (void)loop_.AddSignal(SIGUSR2, [] {}); }).error, EBUSY);
}

TEST_F(EventLoopTest, ReportsFileEventsWithTheFilesName)
{
    const ScratchDirectory directory;
    auto source = loop_.AddInotify(directory.Path(), IN_CREATE, [&](const inotify_event &event) {
        EXPECT_NE(event.mask & IN_CREATE, 0U);
        Note (&event.name[0])();
    });
    ASSERT_TRUE(source);
    directory.Write("first", "");
    directory.Write("second", "");
    RunUntilNoted(2);
    EXPECT_THAT(noted_, ElementsAre("first", "second"));
    source.reset();
    directory.Write("third", "");
    Drain();
    EXPECT_EQ(noted_.size(), 2U);
}

TEST_F(EventLoopTest, AMissingDirectoryCannotBeWatched)
{
    EXPECT_FALSE(loop_.AddInotify("/nonexistent", IN_CREATE, [](const inotify_event &) {}));
}

TEST_F(EventLoopTest, AHandlerMayDestroyItsOwnIoSource)
{
    const Connection connection;
    std::optional<EventSource> source;
    // Long enough to be outside of the function object: a use after its end is seen by a sanitizer.
    const std::string text = "io" + std::string(100, '!');
    source = loop_.AddIo(connection.watched.Get(), EPOLLIN, [&, text](std::uint32_t) {
        source.reset();
        noted_.push_back(text);
    });
    connection.Send();
    RunUntilNoted(1);
    Drain();
    EXPECT_THAT(noted_, ElementsAre(text));
}

TEST_F(EventLoopTest, AHandlerMayDestroyItsOwnSourceOfAnyKind)
{
    const BlockedSignal blocked(SIGUSR1);
    const ScratchDirectory directory;
    std::array<std::optional<EventSource>, 4> sources;
    const auto destroy = [&](std::size_t index) {
        return [&, index, text = std::string(100, 'x')] {
            sources.at(index).reset();
            noted_.push_back(std::to_string(index) + text);
        };
    };
    sources[0] = loop_.AddTimer(destroy(0));
    sources[0]->ArmTimer(Clock::now());
    sources[1] = loop_.AddDeferred(destroy(1));
    sources[1]->Enable();
    sources[2] = loop_.AddSignal(SIGUSR1, destroy(2));
    sources[3] =
        loop_.AddInotify(directory.Path(), IN_CREATE, [end = destroy(3)](const inotify_event & /*event*/) { end(); });
    ::raise(SIGUSR1);
    directory.Write("first", "");
    RunUntilNoted(4);
    ::raise(SIGUSR1);
    directory.Write("second", "");
    Drain();
    const std::string text(100, 'x');
    EXPECT_THAT(noted_, testing::UnorderedElementsAre("0" + text, "1" + text, "2" + text, "3" + text));
}

TEST_F(EventLoopTest, AHandlerMayDestroyAnotherSourceThatIsReady)
{
    std::optional<EventSource> one;
    std::optional<EventSource> other;
    one = loop_.AddDeferred([&] {
        other.reset();
        Note("ran")();
    });
    other = loop_.AddDeferred([&] {
        one.reset();
        Note("ran")();
    });
    one->Enable();
    other->Enable();
    Drain();
    EXPECT_THAT(noted_, ElementsAre("ran"));
}

TEST_F(EventLoopTest, AnExceptionOfAHandlerLeavesTheLoop)
{
    EventSource throwing = loop_.AddDeferred([] { throw std::runtime_error("deferred"); });
    throwing.Enable();
    EXPECT_THAT([&] { loop_.Run(); }, testing::ThrowsMessage<std::runtime_error>("deferred"));
    EventSource timer = loop_.AddTimer([] { throw std::out_of_range("timer"); });
    timer.ArmTimer(Clock::now());
    EXPECT_THAT([&] { (void)loop_.RunUntil([] { return false; }); },
                testing::ThrowsMessage<std::out_of_range>("timer"));
}

TEST_F(EventLoopTest, TheLoopRunsOnAfterAnException)
{
    const Connection connection;
    const EventSource source = loop_.AddIo(connection.watched.Get(), EPOLLIN, [&](std::uint32_t) {
        connection.Take();
        Note("io")();
        if (noted_.size() == 1) {
            throw std::runtime_error("first");
        }
    });
    connection.Send();
    EXPECT_THROW(loop_.Run(), std::runtime_error);
    connection.Send();
    RunUntilNoted(2);
}

TEST_F(EventLoopTest, RunUntilChecksTheConditionBeforeItDispatches)
{
    EventSource deferred = loop_.AddDeferred(Note("deferred"));
    deferred.Enable();
    EXPECT_TRUE(loop_.RunUntil([] { return true; }));
    EXPECT_THAT(noted_, IsEmpty());
}

TEST_F(EventLoopTest, RunUntilTellsThatExitCameFirst)
{
    EventSource deferred = loop_.AddDeferred([&] { loop_.Exit(); });
    deferred.Enable();
    EXPECT_FALSE(loop_.RunUntil([] { return false; }));
}

TEST_F(EventLoopTest, ExitBeforeTheRunEndsIt)
{
    EventSource deferred = loop_.AddDeferred(Note("deferred"));
    deferred.Enable();
    loop_.Exit();
    loop_.Run();
    EXPECT_THAT(noted_, IsEmpty());
}

TEST_F(EventLoopTest, IdleTimeStandsStillWhileAHandlerRuns)
{
    Clock::duration within{};
    EventSource deferred = loop_.AddDeferred([&] {
        const auto before = loop_.IdleTime();
        std::this_thread::sleep_for(20ms);
        within = loop_.IdleTime() - before;
        loop_.Exit();
    });
    deferred.Enable();
    const auto idleBefore = loop_.IdleTime();
    const auto before = Clock::now();
    loop_.Run();
    const auto idle = loop_.IdleTime() - idleBefore;
    EXPECT_EQ(within, 0ms);
    EXPECT_GE(idle, 0ms);
    EXPECT_LE(idle, Clock::now() - before - 20ms);
}

TEST_F(EventLoopTest, IdleTimeSumsTheTimesOfAllHandlers)
{
    EventSource deferred = loop_.AddDeferred([&] {
        std::this_thread::sleep_for(5ms);
        Note("deferred")();
        throw std::runtime_error("also of one that fails");
    });
    const auto idleBefore = loop_.IdleTime();
    const auto before = Clock::now();
    for (int i = 0; i < 3; ++i) {
        deferred.Enable();
        EXPECT_THROW(loop_.Run(), std::runtime_error);
    }
    EXPECT_LE(loop_.IdleTime() - idleBefore, Clock::now() - before - 15ms);
}

TEST_F(EventLoopTest, IdleTimeGoesOnBetweenHandlers)
{
    const auto before = loop_.IdleTime();
    EventSource timer = loop_.AddTimer(Note("timer"));
    timer.ArmTimer(Clock::now() + 20ms);
    RunUntilNoted(1);
    EXPECT_GE(loop_.IdleTime() - before, 19ms);
}

} // namespace
} // namespace kavel::agent
