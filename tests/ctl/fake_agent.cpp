#include "fake_agent.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>

#include "frame.h"

namespace kavel::ctl {

namespace {

bool ReadBytes(int fd, std::span<std::uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t got = ::recv(fd, bytes.data(), bytes.size(), 0);
        if (got <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(got));
    }
    return true;
}

UniqueFd Listen(const std::string &path)
{
    UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(listener.Get(), 1) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
    return listener;
}

} // namespace

Bytes PackReply(std::int32_t result, const std::function<void(Kavel__Reply &)> &fill)
{
    Kavel__Reply reply{};
    kavel__reply__init(&reply);
    reply.result = result;
    if (fill) {
        fill(reply);
    }
    Bytes bytes(kavel__reply__get_packed_size(&reply));
    kavel__reply__pack(&reply, bytes.data());
    return bytes;
}

RequestPtr DecodeRequest(const Bytes &packed)
{
    return RequestPtr(kavel__request__unpack(nullptr, packed.size(), packed.data()));
}

Bytes Frame(const Bytes &payload)
{
    const auto header = control::EncodeFrameLength(payload.size());
    Bytes frame(header.size() + payload.size());
    std::ranges::copy(payload, std::ranges::copy(header, frame.begin()).out);
    return frame;
}

bool WriteBytes(int fd, std::span<const std::uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t put = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (put < 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(put));
    }
    return true;
}

Bytes ReadFrame(int fd)
{
    std::array<std::uint8_t, control::kFrameHeaderSize> header{};
    if (!ReadBytes(fd, header)) {
        return {};
    }
    Bytes payload(control::DecodeFrameLength(header.data()));
    return ReadBytes(fd, payload) ? payload : Bytes{};
}

TempDir::TempDir()
{
    std::string pattern = std::filesystem::temp_directory_path() / "ctl_test.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error(std::strerror(errno));
    }
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::Write(const std::string &name, const std::string &content) const
{
    std::ofstream(File(name), std::ios::binary) << content;
    return File(name);
}

FakeAgent::FakeAgent(std::vector<Bytes> replies, std::function<void(std::size_t)> onRequest)
    : replies_(std::move(replies)), onRequest_(std::move(onRequest)), listener_(Listen(Socket())),
      thread_([this] { Serve(); })
{
}

FakeAgent::~FakeAgent()
{
    Requests();
}

const std::vector<Bytes> &FakeAgent::Requests()
{
    if (thread_.joinable()) {
        ::shutdown(listener_.Get(), SHUT_RDWR); // ends accept4() if no client has connected
        thread_.join();
    }
    return requests_;
}

void FakeAgent::Serve()
{
    const UniqueFd connection(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) {
        return;
    }
    for (const Bytes &reply : replies_) {
        Bytes request = ReadFrame(connection.Get());
        if (request.empty()) {
            return;
        }
        requests_.push_back(std::move(request));
        if (onRequest_) {
            onRequest_(requests_.size());
        }
        if (reply.empty() || !WriteBytes(connection.Get(), Frame(reply))) {
            return;
        }
    }
}

} // namespace kavel::ctl
