#include "instances/dry_start.h"

#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <utility>

#include "base/spawn.h"
#include "failure.h"
#include "log.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::seconds kDryStartTimeout{2};
constexpr const char *kAccepted = "syntax check OK";

UniqueFd MemoryFile()
{
    UniqueFd file(::memfd_create("dry-start", MFD_CLOEXEC));
    if (!file) {
        ThrowLastErrno("memory file");
    }
    return file;
}

} // namespace

DryStart::DryStart(EventLoop &loop, const char *program, const std::string &configuration, OnEnd onEnd)
    : output_(MemoryFile()), onEnd_(std::move(onEnd)), timer_(loop.AddTimer([this] { End(!process_); }))
{
    const pid_t pid = SpawnDetached(program, {"dnsmasq", "--test", "--conf-file=" + configuration},
                                    {.output = output_.Get(), .errors = output_.Get(), .inEnglish = true});
    process_ = ProcessHandle::Open(pid);
    if (process_) { // otherwise it has ended already
        ended_ = loop.AddIo(process_->Fd(), EPOLLIN, [this](std::uint32_t /*events*/) { End(true); });
    }
    timer_.ArmTimer(EventLoop::Clock::now() + (process_ ? kDryStartTimeout : std::chrono::seconds(0)));
}

DryStart::~DryStart()
{
    if (process_ && ended_) {
        try {
            process_->Signal(SIGKILL);
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "a check of dnsmasq's files cannot be ended: %s", failure.what());
        }
    }
}

// The first line of what dnsmasq has written. It begins with an empty one.
std::optional<std::string> DryStart::Reason() const
{
    std::array<char, 1024> text{};
    const ssize_t size = ::pread(output_.Get(), text.data(), text.size(), 0);
    const std::string written(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    const std::size_t begin = written.find_first_not_of('\n');
    if (begin == std::string::npos || written.find(kAccepted) != std::string::npos) {
        return std::nullopt;
    }
    return written.substr(begin, written.find('\n', begin) - begin);
}

void DryStart::End(bool hasEnded)
{
    if (hasEnded) {
        ended_ = EventSource();
    }
    timer_.Disable();
    const OnEnd report = std::move(onEnd_);
    report(hasEnded ? Reason() : std::nullopt);
}

} // namespace kavel::agent
