#include "instances/launches.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "base/failure.h"
#include "instances/instances.h"

namespace kavel::agent {
namespace {

// How long a launch may say nothing before it is checked for having failed.
constexpr std::chrono::milliseconds kSilence{50};

// A check takes one part in so many of the time at most: on a box with many processes the processor is the instances'.
constexpr int kCheckShare = 10;

UniqueFd WatchPidFiles()
{
    UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!watch || ::inotify_add_watch(watch.Get(), kPidDirectory, IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        return {};
    }
    return watch;
}

void Register(const UniqueFd &epoll, const UniqueFd &readable)
{
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    if (::epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, readable.Get(), &wanted) != 0) {
        ThrowLastFailure("epoll");
    }
}

} // namespace

Launches::Launches()
    : pidFiles_(WatchPidFiles()), timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      both_(::epoll_create1(EPOLL_CLOEXEC))
{
    if (!timer_ || !both_) {
        ThrowLastFailure("timer");
    }
    Register(both_, timer_);
    if (pidFiles_) {
        Register(both_, pidFiles_);
    }
}

void Launches::Add(std::uint32_t vpnId, std::chrono::milliseconds patience, Ended ended)
{
    if (IsRunning(vpnId)) {
        ended(true);
        return;
    }
    const auto now = Clock::now();
    if (launches_.empty()) {
        SetTimer(kSilence);
    }
    launches_.insert_or_assign(vpnId, Launch{now, now + patience, true, std::move(ended)});
}

void Launches::Look()
{
    for (const std::uint32_t vpnId : TakeNews()) {
        if (launches_.contains(vpnId) && IsRunning(vpnId)) {
            End(vpnId, true);
        }
    }
    std::uint64_t ticks = 0;
    if (::read(timer_.Get(), &ticks, sizeof ticks) == sizeof ticks) {
        CheckSilent();
    }
}

std::set<std::uint32_t> Launches::TakeNews() const
{
    std::set<std::uint32_t> news;
    alignas(inotify_event) std::array<char, 4096> events{};
    for (;;) {
        const ssize_t size = pidFiles_ ? ::read(pidFiles_.Get(), events.data(), events.size()) : 0;
        if (size <= 0) {
            return news;
        }
        for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
            const auto *const event = reinterpret_cast<const inotify_event *>(events.data() + at);
            if (const auto vpnId = VpnOfPidFile(event->len > 0 ? event->name : "")) {
                news.insert(*vpnId);
            }
            at += sizeof *event + event->len;
        }
    }
}

void Launches::CheckSilent()
{
    const auto now = Clock::now();
    for (const std::uint32_t vpnId : SilentOnesThatEnded(now)) {
        End(vpnId, IsRunning(vpnId));
    }
    if (!launches_.empty()) {
        SetTimer(std::max<Clock::duration>(kSilence, kCheckShare * (Clock::now() - now)));
    }
}

// Without news of it, a pid file is noticed here.
std::vector<std::uint32_t> Launches::SilentOnesThatEnded(Clock::time_point now)
{
    const auto isSilent = [now](const auto &each) { return now - each.second.since >= kSilence; };
    std::vector<std::uint32_t> ended;
    if (std::ranges::none_of(launches_, isSilent)) {
        return ended;
    }
    const std::set<std::uint32_t> seen = VpnsWithProcesses();
    for (auto &each : launches_) {
        auto &[vpnId, launch] = each;
        if (!isSilent(each)) {
            continue;
        }
        // Two looks: a process that executes another program has no command line for a moment.
        const bool wasSeen = std::exchange(launch.wasSeen, seen.contains(vpnId));
        const bool isGone = !wasSeen && !launch.wasSeen;
        if (isGone || now >= launch.deadline || IsRunning(vpnId)) {
            ended.push_back(vpnId);
        }
    }
    return ended;
}

void Launches::End(std::uint32_t vpnId, bool isUp)
{
    const auto launch = launches_.extract(vpnId);
    launch.mapped().ended(isUp);
}

void Launches::SetTimer(Clock::duration delay) const
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(delay);
    itimerspec once{};
    once.it_value.tv_sec = seconds.count();
    once.it_value.tv_nsec = std::chrono::nanoseconds(delay - seconds).count();
    ::timerfd_settime(timer_.Get(), 0, &once, nullptr);
}

void Launches::Await(std::uint32_t vpnId)
{
    while (launches_.contains(vpnId)) {
        AwaitNews();
    }
}

void Launches::AwaitAll()
{
    while (!launches_.empty()) {
        AwaitNews();
    }
}

void Launches::AwaitNews()
{
    pollfd watched{Fd(), POLLIN, 0};
    ::poll(&watched, 1, -1);
    Look();
}

std::set<std::uint32_t> AwaitStarts(Launches &launches, const std::set<std::uint32_t> &vpnIds,
                                    std::chrono::milliseconds patience)
{
    std::set<std::uint32_t> failed;
    for (const std::uint32_t vpnId : vpnIds) {
        launches.Add(vpnId, patience, [&failed, vpnId](bool isUp) {
            if (!isUp) {
                failed.insert(vpnId);
            }
        });
    }
    launches.AwaitAll();
    return failed;
}

} // namespace kavel::agent
