// Handles the requests of the control socket.
#ifndef KAVEL_AGENT_REQUESTS_H
#define KAVEL_AGENT_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "base/log_override.h"
#include "event_loop.h"
#include "instances/agent_facts.h"
#include "instances/controller_message.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "instances/pending_launches.h"
#include "services/host.h"
#include "socket/answer.h"
#include "socket/client_query.h"
#include "socket/message_metrics.h"
#include "socket/metrics_document.h"
#include "socket/metrics_query.h"
#include "socket/request_queues.h"
#include "socket/status_query.h"
#include "socket/why_query.h"
#include "supervision/supervisor.h"

namespace kavel::agent {

// A message that starts an instance is answered when the launch has ended. Until then the VPN is busy: the requests
// that change it wait in its queue, since the module finds an instance by its pid file, which is not written yet.
// Requests that only read are answered at once.
class Requests {
  public:
    // The references must outlive this object. Throws std::system_error.
    Requests(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
             PendingLaunches &launches, Supervisor &supervisor, AgentFacts facts = {});

    // Handles a frame that holds one packed Request. `respond` is called once, before this returns or by the loop.
    void Handle(ReceivedFrame frame, const Respond &respond);

    // The configuration was read again: its log level holds, unless another one was chosen for a time that is not over.
    void ConfigurationRead()
    {
        logOverride_.ConfigurationRead(host_.config.log);
        host_.numbered.ConfigurationRead();
    }

    // Answers everything that is not answered yet: refuses what waits in a queue, status requests and queries, and
    // cancels the launches. No request may follow.
    void Stop();

  private:
    using OptionalAnswer = std::optional<Answer>;

    void Dispatch(ReceivedRequest received, bool wasQueued);
    void DispatchVerb(const Kavel__Request &request, ReceivedRequest received, bool wasQueued);
    void RunInOrder(std::uint32_t vpnId, ReceivedRequest received, bool wasQueued,
                    const std::function<void(const Respond &respond)> &work);
    void HandleApply(const Kavel__Request &request, ReceivedRequest received, bool wasQueued);
    void HandleDirectory(const Kavel__Request &request, ReceivedRequest received, bool wasQueued);
    void Apply(const std::shared_ptr<const ControllerMessage> &message, const Kavel__Request &request,
               const Respond &respond);
    [[nodiscard]] Answer Configure(const ControllerMessage &message, const Kavel__Request &request);
    [[nodiscard]] Respond Recorded(const ControllerMessage &message, const Kavel__Request &request, std::string sender,
                                   const Respond &respond);
    void HandleConfirm(const Kavel__Request &request, ReceivedRequest received, bool wasQueued);
    [[nodiscard]] Answer Confirm(std::uint32_t vpnId, const std::string &sender);
    bool BeginUndo(std::uint32_t vpnId);
    void ApplyBefore(std::uint32_t vpnId, const BeforeUnconfirmed &before, std::uint32_t seconds);
    void StopUnconfirmed(std::uint32_t vpnId, std::uint32_t seconds);
    [[nodiscard]] OptionalAnswer NewerObjection(std::uint32_t vpnId, const Kavel__Request &request);
    [[nodiscard]] Answer NotNewer(std::uint32_t vpnId, const Kavel__Request &request,
                                  const NumberedMessage &last) const;
    [[nodiscard]] Answer RefuseUnconfigured(std::uint32_t vpnId, const Kavel__Request &request,
                                            const std::string &sender);
    void AddToHistory(std::uint32_t vpnId, const HistoryEntry &entry);
    void BeginRepair(const Kavel__Request &request, const Respond &respond);
    void HandleStop(const Kavel__Request &request, ReceivedRequest received, bool wasQueued);
    void HandleFlush(const Kavel__Request &request, ReceivedRequest received, bool wasQueued);
    [[nodiscard]] Answer HandleLogLevel(const Kavel__Request &request, const std::string &sender);
    [[nodiscard]] std::vector<std::uint32_t> ServedVpns() const;
    [[nodiscard]] std::string LaunchFailure(const ControllerMessage &message) const;
    [[nodiscard]] OptionalAnswer KeepBefore(const ControllerMessage &message, const Kavel__Request &request);
    [[nodiscard]] OptionalAnswer ApplyObjection(const ControllerMessage &message) const;
    [[nodiscard]] Answer Check(std::span<const std::uint8_t> bytes);
    [[nodiscard]] Answer InForceAnswer(const Kavel__Request &request);
    void BeginStatus(const Kavel__Request &request, const Respond &respond);
    void BeginWhy(const Kavel__Request &request, const Respond &respond);
    [[nodiscard]] std::variant<StatusScope, Answer> ScopeOf(const Kavel__Request &request) const;
    void BeginMetrics(const Respond &respond);
    [[nodiscard]] AgentMetrics OwnMetrics() const;
    void BeginClientQuery(const Kavel__Request &request, const Respond &respond);
    [[nodiscard]] Answer InitDirectory(std::uint32_t vpnId) const;
    [[nodiscard]] Answer ReleaseDirectory(std::uint32_t vpnId) const;
    [[nodiscard]] OptionalAnswer DirectoryObjection(const Kavel__Request &request) const;
    void EndLaunch(Answer answer, const ControllerMessage &message, LaunchOutcome outcome, const Respond &respond);
    void BeginDraining(std::uint32_t vpnId);
    void DrainQueues();

    // A StatusQuery or a WhyQuery that runs.
    template <typename Query>
    struct PendingQuery {
        Respond respond;
        std::optional<Query> query;
    };
    template <typename Query, typename Fill>
    void BeginQuery(std::list<PendingQuery<Query>> &queries, const Kavel__Request &request, const Respond &respond,
                    Fill fill);
    template <typename Query>
    static void RefuseAll(std::list<PendingQuery<Query>> &queries);

    EventLoop &loop_;
    Host &host_;
    const Instances &instances_;
    const ModuleFunctions &module_;
    PendingLaunches &launches_;
    Supervisor &supervisor_;
    const AgentFacts facts_;
    RequestQueues queues_;
    std::set<std::uint32_t> drainable_; // VPNs that are not busy any more and have requests in their queues
    EventSource drain_;
    std::list<PendingQuery<StatusQuery>> statuses_;
    std::list<PendingQuery<WhyQuery>> whys_;
    std::size_t pendingQueries_ = 0;
    std::list<PendingQuery<MetricsQuery>> metrics_;
    MessageMetrics messages_;
    const std::int64_t startTime_ = std::time(nullptr); // of the agent
    LogOverride logOverride_;
    std::list<PendingQuery<ClientQuery>> clientQueries_;
};

} // namespace kavel::agent

#endif
