#include "socket/client_query.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

#include "log.h"
#include "printable.h"

namespace kavel::agent {
namespace {

constexpr std::uint16_t kInstancePort = 53;
constexpr std::size_t kLogLinesMax = 256;

std::string TextOfAnswer(const DnsAnswer &answer)
{
    std::string text;
    for (const std::string &record : answer.records) {
        text += (text.empty() ? "" : ", ") + record;
    }
    if (!text.empty()) {
        return text;
    }
    return answer.rcode == 0 ? "no such record" : "no record, code " + std::to_string(answer.rcode);
}

bool IsSame(const DnsAnswer &one, const DnsAnswer &other)
{
    const std::multiset<std::string> records(one.records.begin(), one.records.end());
    return one.rcode == other.rcode &&
           records == std::multiset<std::string>(other.records.begin(), other.records.end());
}

} // namespace

ClientQuery::ClientQuery(EventLoop &loop, const Namespaces &namespaces, const Instances &instances,
                         DnsQuestion question, OnEnd onEnd)
    : loop_(loop), namespaces_(namespaces), instances_(instances), question_(std::move(question)),
      onEnd_(std::move(onEnd)), end_(loop.AddDeferred([this] { End(); })), timer_(loop.AddTimer([this] { End(); }))
{
    timer_.ArmTimer(EventLoop::Clock::now() + kQueryTimeout);
    instance_.emplace(loop, namespaces, question_.vpnId, instances.Directory(question_.vpnId) + "/dnsmasq.conf",
                      [this](std::string_view line) { TakeLine(line); });
    AskRunning();
}

void ClientQuery::AskRunning()
{
    try {
        runningExchange_.emplace(loop_, namespaces_, question_, kInstancePort, [this](std::optional<DnsAnswer> answer) {
            running_ = std::move(answer);
            hasRunningEnded_ = true;
            EndIfComplete();
        });
    } catch (const std::system_error &failure) {
        Log(LogLevel::kDebug, "vpn %u: the instance cannot be asked: %s", question_.vpnId, failure.what());
        hasRunningEnded_ = true;
    }
}

void ClientQuery::TakeLine(std::string_view line)
{
    if (line.empty()) { // it has ended
        TakeAnswer(std::nullopt, "dnsmasq does not start with these files: " + Printable(lastLine_));
        return;
    }
    lastLine_ = line;
    if (exchange_ && log_.size() < kLogLinesMax) {
        const auto after = EventLoop::Clock::now() - asked_;
        log_.push_back({lastLine_, std::chrono::duration_cast<std::chrono::milliseconds>(after)});
    }
    if (!exchange_ && QueryInstance::SaysStarted(line)) {
        Ask();
    }
}

void ClientQuery::Ask()
{
    asked_ = EventLoop::Clock::now();
    try {
        exchange_.emplace(loop_, namespaces_, question_, instance_->Port(), [this](std::optional<DnsAnswer> answer) {
            TakeAnswer(std::move(answer), "the answer could not be read");
        });
    } catch (const std::system_error &failure) {
        TakeAnswer(std::nullopt, failure.what());
    }
}

// The log was written before the answer was sent.
void ClientQuery::TakeAnswer(std::optional<DnsAnswer> answer, std::string problem)
{
    if (isAnswered_) {
        return;
    }
    isAnswered_ = true;
    const auto duration = EventLoop::Clock::now() - asked_;
    outcome_.duration =
        exchange_ ? std::chrono::duration_cast<std::chrono::milliseconds>(duration) : std::chrono::milliseconds(0);
    outcome_.problem = answer ? "" : std::move(problem);
    outcome_.answer = std::move(answer);
    instance_->ReadLog();
    EndIfComplete();
}

void ClientQuery::EndIfComplete()
{
    if (isAnswered_ && hasRunningEnded_) {
        end_.Enable();
    }
}

void ClientQuery::End()
{
    if (!isAnswered_) {
        outcome_.problem = "no answer within " + std::to_string(kQueryTimeout.count()) + " s";
        outcome_.duration = kQueryTimeout;
        instance_->ReadLog();
    }
    outcome_.way = WayOfQuery(log_, ReadQueryFiles(Paths()));
    outcome_.differs = Difference();
    const OnEnd report = std::move(onEnd_);
    const QueryOutcome outcome = std::move(outcome_);
    report(outcome);
}

std::optional<std::string> ClientQuery::Difference() const
{
    if (hasRunningEnded_ && !running_) {
        return "no instance answers on port 53";
    }
    if (!running_) {
        return isAnswered_ ? std::optional<std::string>("the running instance does not answer") : std::nullopt;
    }
    if (outcome_.answer && IsSame(*outcome_.answer, *running_)) {
        return std::nullopt;
    }
    return "the running instance answers: " + TextOfAnswer(*running_) +
           "; its cache holds an older answer, or it has not read the files again";
}

// The files that a message writes, and those that somebody else has put beside them.
std::vector<std::string> ClientQuery::Paths() const
{
    const std::vector<std::string> own = instances_.Files(question_.vpnId);
    std::set<std::string> others;
    std::error_code ignored;
    for (const auto &entry :
         std::filesystem::directory_iterator(instances_.Directory(question_.vpnId) + "/dnsmasq.d", ignored)) {
        others.insert(entry.path().string());
    }
    std::vector<std::string> paths = own;
    std::ranges::copy_if(others, std::back_inserter(paths),
                         [&](const std::string &path) { return std::ranges::find(own, path) == own.end(); });
    return paths;
}

} // namespace kavel::agent
