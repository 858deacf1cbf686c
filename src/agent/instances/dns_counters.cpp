#include "instances/dns_counters.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "base/dns_message.h"
#include "number.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kCounterTimeout{500};

// Instances that are asked at a time: each question has a socket of its own.
constexpr std::size_t kAskedAtOnce = 16;

constexpr std::string_view kHits = "hits";
constexpr std::string_view kMisses = "misses";
constexpr std::string_view kSize = "cachesize";
constexpr std::string_view kInsertions = "insertions";
constexpr std::string_view kEvictions = "evictions";
constexpr std::string_view kServers = "servers";
constexpr std::array<std::string_view, 6> kCounters{kHits, kMisses, kSize, kInsertions, kEvictions, kServers};

// Whatever its id is: the probe has compared that.
std::optional<DnsAnswer> Decode(std::span<const std::uint8_t> message)
{
    if (message.size() < 2) {
        return std::nullopt;
    }
    return DecodeDnsAnswer(message, static_cast<std::uint16_t>(message[0] << 8U | message[1]));
}

std::vector<DnsTarget> TargetsOf(std::span<const std::uint32_t> vpnIds)
{
    std::vector<DnsTarget> targets;
    for (const std::uint32_t vpnId : vpnIds) {
        std::ranges::transform(kCounters, std::back_inserter(targets), [vpnId](std::string_view counter) {
            return DnsTarget{.vpnId = vpnId, .interface = {}, .counter = std::string(counter), .isWhole = true};
        });
    }
    return targets;
}

void SetUpstreams(DnsCounters &counters, const std::vector<std::string> &texts)
{
    for (const std::string &text : texts) {
        if (auto upstream = ReadUpstream(text)) {
            counters.upstreams.push_back(*std::move(upstream));
        }
    }
}

void SetCounter(DnsCounters &counters, std::string_view name, std::uint64_t value, std::uint64_t ownQuestions)
{
    if (name == kHits) {
        counters.hits = value - std::min(value, ownQuestions);
    } else if (name == kMisses) {
        counters.misses = value;
    } else if (name == kSize) {
        counters.cacheSize = value;
    } else if (name == kInsertions) {
        counters.insertions = value;
    } else if (name == kEvictions) {
        counters.evictions = value;
    }
}

void SetFromReply(DnsCounters &counters, const std::string &name, const DnsProbe::Reply &reply)
{
    const auto texts = TxtStrings(reply.message);
    if (!texts) {
        return;
    }
    if (name == kServers) {
        SetUpstreams(counters, *texts);
    } else if (texts->size() == 1) {
        if (const auto value = WholeNumber<std::uint64_t>(texts->front())) {
            SetCounter(counters, name, *value, reply.questionsBefore);
        }
    }
}

// Takes the first word, and the space after it, from `text`.
std::string_view TakeWord(std::string_view &text)
{
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    return word;
}

} // namespace

bool IsTruncated(std::span<const std::uint8_t> message)
{
    const auto answer = Decode(message);
    return answer && answer->isTruncated;
}

std::optional<std::vector<std::string>> TxtStrings(std::span<const std::uint8_t> message)
{
    auto answer = Decode(message);
    const bool isComplete = answer && !answer->isTruncated && answer->rcode == 0;
    return isComplete ? std::optional(std::move(answer->strings)) : std::nullopt;
}

std::optional<UpstreamCounters> ReadUpstream(std::string_view text)
{
    const std::string_view server = TakeWord(text);
    const auto asked = WholeNumber<std::uint64_t>(TakeWord(text));
    const auto failed = WholeNumber<std::uint64_t>(TakeWord(text));
    if (server.empty() || !asked || !failed) {
        return std::nullopt;
    }
    return UpstreamCounters{std::string(server), *asked, *failed};
}

DnsCountersQuery::DnsCountersQuery(EventLoop &loop, Host &host, std::vector<std::uint32_t> vpnIds, OnEnd onEnd)
    : loop_(loop), host_(host), vpnIds_(std::move(vpnIds)), onEnd_(std::move(onEnd)),
      asking_(loop.AddDeferred([this] { AskNext(); }))
{
    asking_.Enable();
}

void DnsCountersQuery::AskNext()
{
    if (!truncated_.empty()) {
        asked_ = std::exchange(truncated_, {});
    } else if (next_ < vpnIds_.size()) {
        const std::size_t count = std::min(kAskedAtOnce, vpnIds_.size() - next_);
        asked_ = TargetsOf(std::span(vpnIds_).subspan(next_, count));
        next_ += count;
    } else {
        const OnEnd report = std::move(onEnd_);
        report(std::move(counters_));
        return;
    }
    BeginProbe();
}

void DnsCountersQuery::BeginProbe()
{
    host_.namespaces.BeginRequest();
    probe_.emplace(loop_, host_, asked_, kCounterTimeout,
                   [this](const DnsAnswers &answering) { ReadAnswers(answering); });
}

void DnsCountersQuery::ReadAnswers(const DnsAnswers &answering)
{
    for (const auto &[position, after] : answering) {
        DnsTarget target = asked_[position];
        const DnsProbe::Reply &reply = probe_->AnswerOf(position);
        if (IsTruncated(reply.message) && !target.overTcp) {
            target.overTcp = true;
            truncated_.push_back(std::move(target));
        } else {
            SetFromReply(counters_[target.vpnId], target.counter, reply);
        }
    }
    asking_.Enable();
}

} // namespace kavel::agent
