// What the tests of the agent share: a box in a temporary directory, instances that only look like dnsmasq, and a loop
// that runs until a condition holds.
#ifndef KAVEL_TESTS_AGENT_TEST_BOX_H
#define KAVEL_TESTS_AGENT_TEST_BOX_H

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "base/config.h"
#include "base/instance_process.h"
#include "control.pb-c.h"
#include "event_loop.h"
#include "instances/module.h"
#include "services/process_end.h"
#include "socket/connection.h"
#include "unique_fd.h"

namespace kavel::agent {

using Bytes = std::vector<std::uint8_t>;

// While it lives, a process of root is one of an ordinary user: what needs privileges fails in every run.
class Unprivileged {
  public:
    Unprivileged();
    Unprivileged(const Unprivileged &) = delete;
    Unprivileged &operator=(const Unprivileged &) = delete;
    ~Unprivileged();

  private:
    bool wasRoot_;
};

// A directory of its own, removed with everything in it.
class TempDir {
  public:
    TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir();

    [[nodiscard]] const std::string &Path() const { return path_; }

  private:
    std::string path_;
};

// A VPN id that no other process on this machine uses at this moment: instances are found by their command lines,
// whoever started them. `number` is below kTestVpns.
inline constexpr std::uint32_t kTestVpns = 16;
std::uint32_t TestVpn(std::uint32_t number);
[[nodiscard]] bool IsTestVpnOfOthers(std::uint32_t vpnId); // of another process

// The directories of a box below a temporary one: those of pid files, marks and instances. None of its VPNs has a
// network namespace.
class TestBox {
  public:
    TestBox();

    [[nodiscard]] const std::string &Root() const { return dir_.Path(); }
    [[nodiscard]] std::string Path(const std::string &path) const { return dir_.Path() + path; }

    // A CPE with the VPNs TestVpn(1), TestVpn(2) and TestVpn(3), without persistence.
    [[nodiscard]] Config Configuration() const;

    // Writes a file whole, also its missing directories.
    void Write(const std::string &path, const std::string &content) const;
    void WritePidFile(std::uint32_t vpnId, const std::string &content) const;

  private:
    Unprivileged unprivileged_;
    TempDir dir_;
};

std::string ReadText(const std::string &path);

// A VPN of this name cannot be told from one of another test or of a real agent, such as VPN 0 of every box: its
// instances are programs of this name, which no other process on this machine has, and are known by OwnIdentity().
// A TestBox must live.
std::string OwnProgram();
InstanceIdentity OwnIdentity();

// While it lives, a ChildReaper may be made. Afterwards SIGCHLD and the children of others are as they were before.
class ChildScope {
  public:
    ChildScope();
    ChildScope(const ChildScope &) = delete;
    ChildScope &operator=(const ChildScope &) = delete;
    ~ChildScope();

  private:
    sigset_t before_{};
};

// A process that is called dnsmasq and has the VPN's pid file in its command line. It writes no pid file.
class FakeInstance {
  public:
    FakeInstance(const TestBox &box, std::uint32_t vpnId, const std::string &program = "dnsmasq");
    FakeInstance(const FakeInstance &) = delete;
    FakeInstance &operator=(const FakeInstance &) = delete;
    ~FakeInstance();

    [[nodiscard]] pid_t Pid() const { return pid_; }
    // Kills it. Somebody else may reap it.
    void Kill() const;
    [[nodiscard]] bool IsAlive() const;
    // How often it got SIGHUP.
    [[nodiscard]] std::size_t Reloads() const;
    // Ends it, and waits until it is gone.
    void Stop();

  private:
    UniqueFd input_;      // the process ends with it
    std::string reloads_; // a file that gets a line for each
    pid_t pid_ = -1;
    std::optional<ProcessHandle> handle_; // nothing once it is gone
};

// Dispatches until the condition holds. Whether it does, before the time is over.
[[nodiscard]] bool RunUntil(EventLoop &loop, const std::function<bool()> &isDone,
                            std::chrono::milliseconds timeout = std::chrono::seconds(20));
// Dispatches everything that is ready now.
void DispatchReady(EventLoop &loop);

// Collects what is written to standard error.
class LogCapture {
  public:
    LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    ~LogCapture();

    // What was written so far. Ends the capture.
    std::string Take();

  private:
    bool isTaken_ = false;
};

// The frame that carries `payload`, header included.
Bytes FrameOf(const Bytes &payload);
Bytes PackRequest(std::int32_t verb, std::optional<std::uint32_t> vpn = std::nullopt,
                  const std::optional<Bytes> &message = std::nullopt,
                  std::optional<std::string> revision = std::nullopt,
                  std::optional<std::uint32_t> confirmSeconds = std::nullopt);
// A controller's messages. `fill` completes them; what it points at only has to live until it returns.
Bytes PackCpe(std::uint32_t vpnId, bool enable, std::uint32_t operation,
              const std::function<void(DnsmasqConf &)> &fill = {});
Bytes PackPop(bool enable);

// The module's functions, replaced. They note their calls and then do what the members say.
struct FakeModule {
    FakeModule();
    FakeModule(const FakeModule &) = delete;
    FakeModule &operator=(const FakeModule &) = delete;
    ~FakeModule();

    // One per process at a time.
    static FakeModule &Current();

    ModuleFunctions functions;
    std::vector<std::string> calls;
    std::function<VQ_ERR_T(const VQ_CTRL_DNSMASQ_CONFIG_PB &)> onConfigure;
    std::function<VQ_ERR_T(VQ_DNSMASQ_CONF &)> onTranslate;
    std::function<VQ_ERR_T()> onRecover;
    std::function<VQ_ERR_T()> onRestart;
    VQ_ERR_T partResult = 0;      // of adding routes and adding or removing rules
    VQ_ERR_T directoryResult = 0; // of creating and removing one

  private:
    VQ_ERR_T NotePart(std::string call);
};

// A conversion of stored texts: "on" and "off" are records of the VPN that is appended, such as "on 7", with 1 host,
// 2 mail exchangers, 3 servers and 4 forwards. Other texts cannot be read.
VQ_ERR_T ConvertStoredText(VQ_DNSMASQ_CONF *record, const char *text);

} // namespace kavel::agent

#endif
