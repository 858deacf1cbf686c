#include "test_box.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sched.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "base/instance_process.h"
#include "frame.h"

namespace kavel::agent {
namespace {

constexpr std::uint32_t kFirstTestVpn = 3'000'000'000U;

constexpr uid_t kOrdinaryUser = 65534;

FakeModule *g_module = nullptr;

void Require(bool isDone, const char *what)
{
    if (!isDone) {
        throw std::system_error(errno, std::system_category(), what);
    }
}

// A change of the user makes a process one that nobody may trace, and the leak checker traces it.
void SetUser(uid_t user)
{
    Require(::setresuid(user, user, 0) == 0, "setresuid");
    Require(::prctl(PR_SET_DUMPABLE, 1) == 0, "prctl");
}

template <typename Condition>
void Await(const std::string &what, Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error(what);
        }
        ::sched_yield();
    }
}

std::string VpnText(const std::string &call, std::uint32_t vpnId)
{
    return call + " " + std::to_string(vpnId);
}

} // namespace

Unprivileged::Unprivileged() : wasRoot_(::geteuid() == 0)
{
    if (wasRoot_) {
        SetUser(kOrdinaryUser);
    }
}

Unprivileged::~Unprivileged()
{
    if (wasRoot_) {
        SetUser(0);
    }
}

TempDir::TempDir()
{
    path_ = (std::filesystem::temp_directory_path() / "agent_tests.XXXXXX").string();
    Require(::mkdtemp(path_.data()) != nullptr, "mkdtemp");
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::uint32_t TestVpn(std::uint32_t number)
{
    return kFirstTestVpn + static_cast<std::uint32_t>(::getpid()) * kTestVpns + number;
}

bool IsTestVpnOfOthers(std::uint32_t vpnId)
{
    return vpnId >= kFirstTestVpn && vpnId - TestVpn(0) >= kTestVpns;
}

TestBox::TestBox()
{
    for (const char *directory : {"/var/run", "/run/kavel", "/etc/kavel/dnsmasq"}) {
        std::filesystem::create_directories(Path(directory));
    }
}

Config TestBox::Configuration() const
{
    Config config;
    config.store = Path("/store/agent.db");
    config.socket = Path("/agent.sock");
    for (std::uint32_t number = 1; number <= 3; ++number) {
        Vpn vpn;
        vpn.id = TestVpn(number);
        vpn.netns = "no-namespace-" + std::to_string(TestVpn(number));
        vpn.path = "vpns[" + std::to_string(number - 1) + "]";
        config.vpns.push_back(vpn);
    }
    return config;
}

void TestBox::Write(const std::string &path, const std::string &content) const
{
    const std::filesystem::path file = Path(path);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    Require(stream.flush().good(), file.c_str());
}

void TestBox::WritePidFile(std::uint32_t vpnId, const std::string &content) const
{
    Write(PidFilePath(vpnId), content);
}

std::string ReadText(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string OwnProgram()
{
    return "dnsmasq-" + std::to_string(::getpid());
}

InstanceIdentity OwnIdentity()
{
    InstanceIdentity identity = InstanceIdentity::OfBox();
    identity.program = OwnProgram();
    identity.launchers.clear();
    return identity;
}

ChildScope::ChildScope()
{
    Require(::sigprocmask(SIG_SETMASK, nullptr, &before_) == 0, "sigprocmask");
}

ChildScope::~ChildScope()
{
    EXPECT_EQ(::sigprocmask(SIG_SETMASK, &before_, nullptr), 0);
    EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
}

// A shell that waits for a line on its standard input. Instances are known by the name of their executable.
FakeInstance::FakeInstance(const TestBox &box, std::uint32_t vpnId, const std::string &program)
{
    const std::string path = box.Path("/" + program);
    std::filesystem::copy_file("/bin/sh", path, std::filesystem::copy_options::skip_existing);
    std::array<int, 2> ends{};
    Require(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    const UniqueFd output(ends[0]);
    input_ = UniqueFd(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, output.Get(), STDIN_FILENO);
    std::string name = path;
    std::string option = "-c";
    const std::string reloads = box.Path("/reloads.");
    std::string script = "trap 'reload=1; echo >>" + reloads + "$$' HUP; : >>" + reloads +
                         "$$; reload=1; while [ $reload ]; do reload=; read line && exit; done";
    std::string pidFile = "--pid-file=" + PidFilePath(vpnId);
    const std::array<char *, 5> arguments{name.data(), option.data(), script.data(), pidFile.data(), nullptr};
    errno = ::posix_spawn(&pid_, path.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    Require(errno == 0, "posix_spawn");
    handle_ = ProcessHandle::Open(pid_);
    reloads_ = reloads + std::to_string(pid_);
    // For a moment after it was started a process has no command line; where programs are emulated it has this
    // program's.
    Await("a process does not run " + path, [&] { return ReadCommandLine(pid_).starts_with(path); });
    Await("a fake instance does not start", [&] { return std::filesystem::exists(reloads_); });
}

FakeInstance::~FakeInstance()
{
    Stop();
}

void FakeInstance::Stop()
{
    if (handle_) {
        Kill();
        siginfo_t ignored{};
        ::waitid(P_PIDFD, static_cast<id_t>(handle_->Fd()), &ignored, WEXITED); // fails if it was reaped
        handle_.reset();
    }
}

void FakeInstance::Kill() const
{
    handle_->Signal(SIGKILL);
}

std::size_t FakeInstance::Reloads() const
{
    return std::filesystem::file_size(reloads_);
}

bool FakeInstance::IsAlive() const
{
    return handle_ && !handle_->EndsWithin(std::chrono::milliseconds(0));
}

bool RunUntil(EventLoop &loop, const std::function<bool()> &isDone, std::chrono::milliseconds timeout)
{
    bool isOver = false;
    EventSource timer = loop.AddTimer([&] { isOver = true; });
    timer.ArmTimer(EventLoop::Clock::now() + timeout);
    bool wasDone = false;
    return loop.RunUntil([&] { return (wasDone = isDone()) || isOver; }) && wasDone;
}

void DispatchReady(EventLoop &loop)
{
    // Sources take turns, so each that is ready gets its turn.
    int turns = 0;
    EventSource turn;
    turn = loop.AddDeferred([&] {
        ++turns;
        turn.Enable();
    });
    turn.Enable();
    EXPECT_TRUE(RunUntil(loop, [&] { return turns >= 20; }));
}

LogCapture::LogCapture()
{
    testing::internal::CaptureStderr();
}

LogCapture::~LogCapture()
{
    if (!isTaken_) {
        (void)Take();
    }
}

std::string LogCapture::Take()
{
    isTaken_ = true;
    return testing::internal::GetCapturedStderr();
}

Bytes FrameOf(const Bytes &payload)
{
    const auto header = control::EncodeFrameLength(payload.size());
    Bytes frame(header.begin(), header.end());
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Bytes PackRequest(std::int32_t verb, std::optional<std::uint32_t> vpn, const std::optional<Bytes> &message,
                  std::optional<std::string> revision, std::optional<std::uint32_t> confirmSeconds)
{
    Kavel__Request request = KAVEL__REQUEST__INIT;
    request.verb = static_cast<Kavel__Request__Verb>(verb);
    request.has_vpn = vpn ? 1 : 0;
    request.vpn = vpn.value_or(0);
    Bytes content = message.value_or(Bytes{});
    request.has_message = message ? 1 : 0;
    request.message = {content.size(), content.data()};
    request.revision = revision ? revision->data() : nullptr;
    request.has_confirm_seconds = confirmSeconds ? 1 : 0;
    request.confirm_seconds = confirmSeconds.value_or(0);
    Bytes packed(kavel__request__get_packed_size(&request));
    kavel__request__pack(&request, packed.data());
    return packed;
}

Bytes PackCpe(std::uint32_t vpnId, bool enable, std::uint32_t operation, const std::function<void(DnsmasqConf &)> &fill)
{
    DnsmasqConf message = DNSMASQ_CONF__INIT;
    message.has_vpnid = 1;
    message.vpnid = vpnId;
    message.enable = enable ? 1 : 0;
    message.operation = operation;
    if (fill) {
        fill(message);
    }
    Bytes packed(dnsmasq_conf__get_packed_size(&message));
    dnsmasq_conf__pack(&message, packed.data());
    return packed;
}

Bytes PackPop(bool enable)
{
    PopDnsmasqConf message = POP_DNSMASQ_CONF__INIT;
    message.enable = enable ? 1 : 0;
    Bytes packed(pop_dnsmasq_conf__get_packed_size(&message));
    pop_dnsmasq_conf__pack(&message, packed.data());
    return packed;
}

FakeModule::FakeModule()
{
    g_module = this;
    functions.setPlatform = [] { Current().calls.emplace_back("platform"); };
    functions.stopOldService = [] { Current().calls.emplace_back("stop old service"); };
    functions.configure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB *message) {
        Current().calls.emplace_back("configure");
        return Current().onConfigure ? Current().onConfigure(*message) : 0;
    };
    functions.translate = [](const VQ_CTRL_DNSMASQ_CONFIG_PB * /*message*/, VQ_CTRL_DNSMASQ_CONF *record) {
        Current().calls.emplace_back("translate");
        return Current().onTranslate ? Current().onTranslate(*record) : 0;
    };
    functions.recover = [] {
        Current().calls.emplace_back("recover");
        return Current().onRecover ? Current().onRecover() : 0;
    };
    functions.initDirectory = [](std::uint32_t vpnId) {
        Current().calls.push_back(VpnText("init", vpnId));
        return Current().directoryResult;
    };
    functions.releaseDirectory = [](std::uint32_t vpnId) {
        Current().calls.push_back(VpnText("release", vpnId));
        return Current().directoryResult;
    };
    // Names with an underscore are not valid.
    functions.validateDomain = [](const char *domain) {
        return std::string_view(domain).find('_') == std::string_view::npos ? TRUE : FALSE;
    };
    functions.stopInstance = [](std::uint32_t vpnId) {
        Current().calls.push_back(VpnText("stop", vpnId));
        return 0;
    };
    functions.restartInstance = [](std::uint32_t vpnId) {
        Current().calls.push_back(VpnText("restart", vpnId));
        return Current().onRestart ? Current().onRestart() : 0;
    };
    functions.addRoutes = [](const VQ_CTRL_DNSMASQ_CONF *record) {
        return Current().NotePart(VpnText("add routes of", record->VpnId));
    };
    functions.removeRoutes = [](std::uint32_t vpnId) { (void)Current().NotePart(VpnText("remove routes of", vpnId)); };
    functions.addPolicy = [](std::uint32_t vpnId) { return Current().NotePart(VpnText("add rule of", vpnId)); };
    functions.removePolicy = [](std::uint32_t vpnId) { return Current().NotePart(VpnText("remove rule of", vpnId)); };
    functions.addDnat = [](std::uint32_t address) { return Current().NotePart(VpnText("add DNAT to", address)); };
}

FakeModule::~FakeModule()
{
    g_module = nullptr;
}

VQ_ERR_T FakeModule::NotePart(std::string call)
{
    calls.push_back(std::move(call));
    return partResult;
}

FakeModule &FakeModule::Current()
{
    return *g_module;
}

VQ_ERR_T ConvertStoredText(VQ_DNSMASQ_CONF *record, const char *text)
{
    std::array<char, 4> state{};
    if (std::sscanf(text, "%3s %u", state.data(), &record->VpnId) != 2) {
        return -EINVAL;
    }
    record->Enable = std::string(state.data()) == "on" ? TRUE : FALSE;
    record->DnsHostNum = 1;
    record->DnsMxHostNum = 2;
    record->DnsServerNum = 3;
    record->DnsProxyNum = 4;
    return 0;
}

} // namespace kavel::agent
