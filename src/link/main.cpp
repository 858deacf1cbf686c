// vqlink: brings the messages of a broker to the agent of this box, and says at the broker what became of them.
#include <getopt.h>
#include <malloc.h>
#include <systemd/sd-daemon.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "agent_line.h"
#include "box_link.h"
#include "event_loop.h"
#include "failure.h"
#include "input_error.h"
#include "link_config.h"
#include "log.h"

using namespace kavel;
using namespace kavel::link;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kLargeObject = 128 * 1024; // bytes

constexpr const char *kHelp = "Connects the agent of this box with a message broker.\n"
                              "\n"
                              "usage: vqlink [options]\n"
                              "  --config FILE  configuration file (/etc/kavel/link.json)\n"
                              "  --version      print the version and exit\n"
                              "  --help         print this text and exit\n";

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string config = "/etc/kavel/link.json";
    const char *printOnly = nullptr; // a text to print instead of running
};

Options ParseOptions(int argc, char **argv)
{
    static constexpr std::array<option, 4> kOptions{{{"config", required_argument, nullptr, 'c'},
                                                     {"version", no_argument, nullptr, 'v'},
                                                     {"help", no_argument, nullptr, 'h'},
                                                     {nullptr, 0, nullptr, 0}}};
    Options options;
    opterr = 0;
    for (int found = 0; (found = ::getopt_long(argc, argv, ":h", kOptions.data(), nullptr)) != -1;) {
        switch (found) {
        case 'c':
            options.config = optarg;
            break;
        case 'v':
            options.printOnly = "vqlink " KAVEL_VERSION "\n";
            break;
        case 'h':
            options.printOnly = kHelp;
            break;
        default:
            throw UsageError(std::string(argv[optind - 1]) +
                             (found == ':' ? ": a value is missing" : ": unknown option"));
        }
    }
    if (optind < argc) {
        throw UsageError(std::string(argv[optind]) + ": unexpected argument");
    }
    return options;
}

// Blocked before anything else, so that a signal that comes early is kept for the loop.
void SetUpSignals()
{
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGTERM);
    sigaddset(&handled, SIGINT);
    sigaddset(&handled, SIGHUP);
    if (::sigprocmask(SIG_BLOCK, &handled, nullptr) != 0) {
        ThrowLastErrno("signals");
    }
    ::signal(SIGPIPE, SIG_IGN);
}

class Program {
  public:
    explicit Program(Options options) : options_(std::move(options)), link_(NewLink(LoadLinkConfig(options_.config))) {}

    // Until a signal ends it.
    void Run();

  private:
    std::unique_ptr<BoxLink> NewLink(const LinkConfig &config);
    void ReadConfigurationAgain();
    void Stop();

    Options options_;
    EventLoop loop_;
    bool isStopping_ = false;
    std::unique_ptr<BoxLink> link_;
};

std::unique_ptr<BoxLink> Program::NewLink(const LinkConfig &config)
{
    ConfigureLog(config.log);
    auto link =
        std::make_unique<BoxLink>(loop_, BoxLink::Options{config.box, KAVEL_VERSION, config.broker},
                                  std::make_unique<AgentLine>(loop_, config.agent),
                                  [](const std::string &state) { ::sd_notifyf(0, "STATUS=%s", state.c_str()); });
    Log(LogLevel::kNotice, "box %s, broker %s:%u, agent %s", config.box.c_str(), config.broker.host.c_str(),
        config.broker.port, config.agent.c_str());
    return link;
}

void Program::Run()
{
    const EventSource terminate = loop_.AddSignal(SIGTERM, [this] { Stop(); });
    const EventSource interrupt = loop_.AddSignal(SIGINT, [this] { Stop(); });
    const EventSource reload = loop_.AddSignal(SIGHUP, [this] { ReadConfigurationAgain(); });
    loop_.SendWatchdog();
    link_->Start();
    ::sd_notify(0, "READY=1");
    loop_.Run();
}

// It keeps nothing that a new link does not ask for, so that one takes its place: also with new certificates.
void Program::ReadConfigurationAgain()
{
    if (isStopping_) {
        return;
    }
    ::sd_notify(0, "RELOADING=1");
    try {
        std::unique_ptr<BoxLink> fresh = NewLink(LoadLinkConfig(options_.config));
        link_ = std::move(fresh);
        link_->Start();
    } catch (const std::exception &failure) {
        Log(LogLevel::kError, "%s: %s; the configuration stays as it was", options_.config.c_str(), failure.what());
    }
    ::sd_notify(0, "READY=1");
}

void Program::Stop()
{
    if (!std::exchange(isStopping_, true)) {
        ::sd_notify(0, "STOPPING=1");
        Log(LogLevel::kNotice, "stopping");
        link_->Stop([this] { loop_.Exit(); });
    }
}

int ReportError(const std::string &text, int status)
{
    WriteFinalLine("vqlink", text);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    try {
        options = ParseOptions(argc, argv);
        if (options.printOnly != nullptr) {
            return std::fputs(options.printOnly, stdout) == EOF ? kExitFailure : EXIT_SUCCESS;
        }
        // Set once, it stays: a large message goes back to the system, and does not raise it.
        ::mallopt(M_MMAP_THRESHOLD, kLargeObject);
        SetUpSignals();
        Program(options).Run();
        return EXIT_SUCCESS;
    } catch (const UsageError &error) {
        return ReportError(error.what(), kExitUsage);
    } catch (const InputError &error) {
        return ReportError(options.config + ": " + error.what(), kExitUsage);
    } catch (const std::exception &error) {
        return ReportError(error.what(), kExitFailure);
    }
}
