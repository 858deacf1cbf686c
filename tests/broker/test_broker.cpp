#include "test_broker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "unique_fd.h"

namespace kavel::broker {

namespace {

constexpr const char *kMosquitto = "/usr/sbin/mosquitto";
constexpr std::chrono::seconds kStartMax{20};
constexpr int kStartTries = 5; // another program may take the port first

pid_t Spawn(const std::vector<std::string> &arguments)
{
    std::vector<char *> texts;
    for (const std::string &argument : arguments) {
        texts.push_back(const_cast<char *>(argument.c_str()));
    }
    texts.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int error = ::posix_spawnp(&pid, texts.front(), &actions, nullptr, texts.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error("cannot start " + arguments.front());
    }
    return pid;
}

sockaddr_in Loopback(std::uint16_t port)
{
    return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
}

std::uint16_t FreePort()
{
    const UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    if (::bind(socket.Get(), generic, size) != 0 || ::getsockname(socket.Get(), generic, &size) != 0) {
        throw std::runtime_error("no free port");
    }
    return ntohs(address.sin_port);
}

bool AcceptsConnections(std::uint16_t port)
{
    const UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = Loopback(port);
    return ::connect(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

} // namespace

void RunProgram(const std::vector<std::string> &arguments)
{
    int status = 0;
    if (::waitpid(Spawn(arguments), &status, 0) < 0 || status != 0) {
        std::string line;
        for (const std::string &argument : arguments) {
            line += argument + " ";
        }
        throw std::runtime_error("failed: " + line);
    }
}

TestDirectory::TestDirectory()
{
    std::string path = std::filesystem::temp_directory_path() / "broker_test.XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("no directory for the test");
    }
    path_ = path;
}

TestDirectory::~TestDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TestDirectory::Write(const std::string &name, const std::string &content) const
{
    std::string path = File(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

TestAuthority::TestAuthority(const TestDirectory &directory, const std::string &name)
    : directory_(directory), name_(name)
{
    RunProgram({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                "-keyout", directory.File(name + ".key"), "-out", Certificate(), "-subj", "/CN=" + name, "-days",
                "30"});
}

void TestAuthority::Sign(const std::string &name, const std::string &names, int days) const
{
    const std::string request = directory_.File(name + ".csr");
    RunProgram({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
                directory_.File(name + ".key"), "-out", request, "-subj", "/CN=" + name});
    RunProgram({"openssl", "x509", "-req", "-in", request, "-CA", Certificate(), "-CAkey",
                directory_.File(name_ + ".key"), "-CAcreateserial", "-out", directory_.File(name + ".pem"), "-days",
                std::to_string(days), "-extfile", directory_.Write(name + ".ext", "subjectAltName=" + names + "\n")});
}

TestBroker::TestBroker(const std::string &configuration) : configuration_(configuration)
{
    for (int i = 0; i < kStartTries; ++i) {
        port_ = FreePort();
        if (Start()) {
            return;
        }
    }
    throw std::runtime_error("mosquitto does not start with:\n" + configuration);
}

bool TestBroker::Start()
{
    // It does not change to another user, who could not read the files of the test.
    const std::string path =
        directory_.Write("mosquitto.conf", "user root\npersistence false\nlistener " + std::to_string(port_) +
                                               " 127.0.0.1\n" + configuration_);
    // A test that is killed leaves no broker behind.
    pid_ = Spawn({"setpriv", "--pdeathsig", "KILL", kMosquitto, "-c", path});
    const auto deadline = std::chrono::steady_clock::now() + kStartMax;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = 0;
            return false;
        }
        if (AcceptsConnections(port_)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Kill();
    return false;
}

void TestBroker::Kill()
{
    if (pid_ != 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }
}

void TestBroker::Restart()
{
    Kill();
    if (!Start()) {
        throw std::runtime_error("mosquitto does not start again");
    }
}

Session::Options TestBroker::Options(const std::string &clientId) const
{
    return {.endpoint = {.host = "127.0.0.1", .port = port_, .ca = {}, .certificate = {}, .key = {}},
            .clientId = clientId,
            .filters = {},
            .will = std::nullopt};
}

} // namespace kavel::broker
