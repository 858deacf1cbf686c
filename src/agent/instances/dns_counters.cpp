#include "instances/dns_counters.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <sstream>
#include <utility>

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

constexpr std::size_t kFlagsAt = 2;
constexpr std::size_t kQuestionsAt = 4;
constexpr std::size_t kAnswersAt = 6;
constexpr std::size_t kHeaderBytes = 12;
constexpr std::uint8_t kTruncatedFlag = 0x02;
constexpr std::uint8_t kErrorMask = 0x0F;
constexpr std::uint16_t kTxt = 16;

// Reads a DNS message from the front. A read beyond its end makes it bad.
class DnsReader {
  public:
    explicit DnsReader(std::span<const std::uint8_t> bytes) : left_(bytes) {}

    [[nodiscard]] bool IsGood() const { return isGood_; }

    std::span<const std::uint8_t> Take(std::size_t count)
    {
        isGood_ = isGood_ && count <= left_.size();
        const auto taken = left_.first(isGood_ ? count : 0);
        left_ = left_.subspan(taken.size());
        return taken;
    }

    std::uint8_t Byte()
    {
        const auto bytes = Take(1);
        return isGood_ ? bytes[0] : 0;
    }

    std::uint16_t Number()
    {
        const std::uint8_t high = Byte();
        return static_cast<std::uint16_t>((high << 8U) + Byte());
    }

    // A name ends with an empty label or with a pointer to an earlier one.
    void SkipName()
    {
        constexpr std::uint8_t kPointer = 0xC0;
        std::uint8_t length = Byte();
        while (isGood_ && length != 0 && length < kPointer) {
            (void)Take(length);
            length = Byte();
        }
        if (length >= kPointer) {
            (void)Byte();
        }
    }

  private:
    std::span<const std::uint8_t> left_;
    bool isGood_ = true;
};

void ReadStrings(DnsReader &message, std::vector<std::string> &strings)
{
    message.SkipName();
    const std::uint16_t type = message.Number();
    constexpr std::size_t kClassAndLifetime = 6;
    (void)message.Take(kClassAndLifetime);
    DnsReader content(message.Take(message.Number()));
    std::uint8_t length = content.Byte();
    while (type == kTxt && content.IsGood()) {
        const auto text = content.Take(length);
        if (content.IsGood()) {
            strings.emplace_back(text.begin(), text.end());
        }
        length = content.Byte();
    }
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

} // namespace

bool IsTruncated(std::span<const std::uint8_t> message)
{
    return message.size() > kFlagsAt && (message[kFlagsAt] & kTruncatedFlag) != 0;
}

std::optional<std::vector<std::string>> TxtStrings(std::span<const std::uint8_t> message)
{
    if (message.size() < kHeaderBytes || IsTruncated(message) || (message[kFlagsAt + 1] & kErrorMask) != 0) {
        return std::nullopt;
    }
    const std::uint16_t questions = DnsReader(message.subspan(kQuestionsAt)).Number();
    const std::uint16_t answers = DnsReader(message.subspan(kAnswersAt)).Number();
    DnsReader reader(message.subspan(kHeaderBytes));
    for (std::uint16_t count = 0; count < questions && reader.IsGood(); ++count) {
        reader.SkipName();
        constexpr std::size_t kTypeAndClass = 4;
        (void)reader.Take(kTypeAndClass);
    }
    std::vector<std::string> strings;
    for (std::uint16_t count = 0; count < answers && reader.IsGood(); ++count) {
        ReadStrings(reader, strings);
    }
    return reader.IsGood() ? std::optional(std::move(strings)) : std::nullopt;
}

std::optional<UpstreamCounters> ReadUpstream(std::string_view text)
{
    std::istringstream words{std::string(text)};
    std::string server;
    std::string asked;
    std::string failed;
    if (!(words >> server >> asked >> failed)) {
        return std::nullopt;
    }
    const auto askedNumber = WholeNumber<std::uint64_t>(asked);
    const auto failedNumber = WholeNumber<std::uint64_t>(failed);
    if (!askedNumber || !failedNumber) {
        return std::nullopt;
    }
    return UpstreamCounters{std::move(server), *askedNumber, *failedNumber};
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
                   [this](const std::set<std::size_t> &answering) { ReadAnswers(answering); });
}

void DnsCountersQuery::ReadAnswers(const std::set<std::size_t> &answering)
{
    for (const std::size_t position : answering) {
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
