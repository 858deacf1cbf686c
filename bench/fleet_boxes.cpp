// Plays many boxes at a broker until it is killed: each has the link's code and a connection of its own, and an agent
// that answers each request at once and does nothing else.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "box_link.h"
#include "control.pb-c.h"
#include "event_loop.h"
#include "log.h"
#include "ports.h"

namespace kavel::bench {
namespace {

struct Options {
    broker::Endpoint endpoint; // without a certificate
    std::string certificates;  // directory
    std::vector<std::string> names;
};

// Of a VPN whose every message is newer and is applied, and whose instance runs.
class AgreeingAgent : public link::AgentPort {
  public:
    explicit AgreeingAgent(EventLoop &loop) : answer_(loop.AddDeferred([this] { Answer(); })) {}

    void Start(Events events) override
    {
        events_ = std::move(events);
        answer_.Enable();
    }

    void Send(const Kavel__Request &request) override
    {
        isApply_ = request.verb == KAVEL__REQUEST__VERB__APPLY;
        if (isApply_) {
            vpn_ = request.vpn;
            revision_ = request.revision;
        }
        answer_.Enable();
    }

  private:
    void Answer();
    void AnswerApply();
    void AnswerStatus();

    Events events_;
    bool isConnected_ = false;
    bool isApply_ = false; // the request
    std::uint32_t vpn_ = 0;
    std::string revision_; // in force; empty: none
    EventSource answer_;
};

void AgreeingAgent::Answer()
{
    if (!std::exchange(isConnected_, true)) {
        events_.connected();
    } else if (isApply_) {
        AnswerApply();
    } else {
        AnswerStatus();
    }
}

void AgreeingAgent::AnswerApply()
{
    Kavel__Reply reply = KAVEL__REPLY__INIT;
    reply.has_vpn = reply.has_enabled = reply.enabled = reply.has_running = reply.running = 1;
    reply.vpn = vpn_;
    reply.in_force_revision = revision_.data();
    events_.answered(reply);
}

void AgreeingAgent::AnswerStatus()
{
    std::string space = "vpn_" + std::to_string(vpn_);
    std::string sender = "bench";
    std::string outcome = "applied";
    Kavel__HistoryEntry last = KAVEL__HISTORY_ENTRY__INIT;
    last.sender = sender.data();
    last.outcome = outcome.data();
    last.revision = revision_.data();
    last.vpn = vpn_;
    Kavel__VpnStatus status = KAVEL__VPN_STATUS__INIT;
    status.vpn = vpn_;
    status.namespace_ = space.data();
    status.meant = status.pid_file = status.alive = status.is_dnsmasq = status.in_namespace = status.answers = 1;
    status.revision = revision_.data();
    status.last_numbered = &last;
    Kavel__VpnStatus *statuses = &status;
    Kavel__Reply reply = KAVEL__REPLY__INIT;
    reply.n_vpns = revision_.empty() ? 0 : 1;
    reply.vpns = &statuses;
    events_.answered(reply);
}

std::unique_ptr<link::BoxLink> NewBox(EventLoop &loop, const Options &options, const std::string &name)
{
    broker::Endpoint endpoint = options.endpoint;
    endpoint.certificate = options.certificates + "/" + name + ".pem";
    auto box = std::make_unique<link::BoxLink>(loop, link::BoxLink::Options{name, "0", endpoint},
                                               std::make_unique<AgreeingAgent>(loop));
    box->Start();
    return box;
}

void Play(const Options &options)
{
    ConfigureLog(LogLevel::kError);
    ::signal(SIGPIPE, SIG_IGN);
    EventLoop loop;
    std::vector<std::unique_ptr<link::BoxLink>> boxes;
    std::ranges::transform(options.names, std::back_inserter(boxes),
                           [&](const std::string &name) { return NewBox(loop, options, name); });
    loop.Run();
}

} // namespace
} // namespace kavel::bench

int main(int argc, char **argv)
{
    try {
        kavel::bench::Options options;
        CLI::App app("Plays many boxes at a broker until it is killed.", "bench_fleet_boxes");
        app.add_option("--host", options.endpoint.host, "host of the broker")->required();
        app.add_option("--port", options.endpoint.port, "its port")->required();
        app.add_option("--ca", options.endpoint.ca, "authority of its certificate")->required();
        app.add_option("--key", options.endpoint.key, "key of all certificates")->required();
        app.add_option("--certificates", options.certificates, "directory with NAME.pem for each box")->required();
        app.add_option("names", options.names, "names of the boxes")->required();
        CLI11_PARSE(app, argc, argv);
        kavel::bench::Play(options);
        return EXIT_SUCCESS;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "bench_fleet_boxes: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
