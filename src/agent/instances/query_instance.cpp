#include "instances/query_instance.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>
#include <vector>

#include "base/spawn.h"
#include "failure.h"

namespace kavel::agent {
namespace {

constexpr const char *kProgramPath = "/usr/sbin/dnsmasq";
constexpr std::size_t kLineMax = 4096;

// A port of 127.0.0.1 that nobody uses over UDP. Another process may take it before dnsmasq does: then dnsmasq says so.
std::uint16_t FreePort(const Namespaces &namespaces, std::uint32_t vpnId)
{
    const NamespaceSwitch inside(namespaces, vpnId);
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (!socket || ::bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), size) != 0 ||
        ::getsockname(socket.Get(), reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        ThrowLastErrno("a port for the query");
    }
    return ntohs(address.sin_port);
}

// timeout(1) ends dnsmasq if the agent cannot.
std::vector<std::string> CommandOf(const std::string &config, std::uint16_t port)
{
    return {"timeout",
            "--signal=KILL",
            std::to_string(kQueryInstanceLife.count()),
            kProgramPath,
            "--conf-file=" + config,
            "--no-hosts",
            "--pid-file=",
            "--keep-in-foreground",
            "--port=" + std::to_string(port),
            "--listen-address=127.0.0.1",
            "--bind-interfaces",
            "--log-queries=extra",
            "--log-facility=-"};
}

pid_t Start(const Namespaces &namespaces, std::uint32_t vpnId, std::vector<std::string> command, int errors)
{
    const NamespaceSwitch inside(namespaces, vpnId); // a child is in the namespace of the thread that starts it
    return SpawnDetached("/usr/bin/timeout", std::move(command), {.errors = errors, .inEnglish = true});
}

// "dnsmasq[4711]: started, version 2.90" without what is in front of the text.
std::string_view WithoutPrefix(std::string_view line)
{
    const std::size_t end = line.find(": ");
    return line.starts_with("dnsmasq") && end != std::string_view::npos ? line.substr(end + 2) : line;
}

} // namespace

QueryInstance::QueryInstance(EventLoop &loop, const Namespaces &namespaces, std::uint32_t vpnId,
                             const std::string &config, OnLine onLine)
    : onLine_(std::move(onLine)), port_(FreePort(namespaces, vpnId))
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        ThrowLastErrno("pipe");
    }
    log_ = UniqueFd(ends[0]);
    const UniqueFd errors(ends[1]);
    if (::fcntl(log_.Get(), F_SETFL, O_NONBLOCK) != 0) { // for this end only: dnsmasq may wait
        ThrowLastErrno("pipe");
    }
    source_ = loop.AddIo(log_.Get(), EPOLLIN, [this](std::uint32_t /*events*/) { ReadLog(); });
    pid_ = Start(namespaces, vpnId, CommandOf(config, port_), errors.Get());
}

// The process group: timeout(1), dnsmasq and its children. Its id cannot be used by others while dnsmasq lives, and
// dnsmasq holds the log as long as it lives.
QueryInstance::~QueryInstance()
{
    if (!hasEnded_) {
        ::kill(-pid_, SIGKILL);
    }
}

void QueryInstance::ReadLog()
{
    std::array<char, kLineMax> chunk{};
    ssize_t size = 0;
    while (!hasEnded_ && (size = ::read(log_.Get(), chunk.data(), chunk.size())) > 0) {
        unfinished_.append(chunk.data(), static_cast<std::size_t>(size));
        TakeLines();
    }
    if (size == 0 && !hasEnded_) {
        hasEnded_ = true;
        source_ = EventSource();
        onLine_({});
    }
}

void QueryInstance::TakeLines()
{
    std::size_t start = 0;
    for (std::size_t end = 0; (end = unfinished_.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string_view line = std::string_view(unfinished_).substr(start, end - start);
        if (!line.empty()) {
            onLine_(WithoutPrefix(line));
        }
    }
    unfinished_.erase(0, start);
    if (unfinished_.size() > kLineMax) {
        unfinished_.clear();
    }
}

} // namespace kavel::agent
