// What the link makes of the messages of a broker: one message a line, "topic|revision|platform|payload"; "-" is no
// revision and no platform. The agent is given exactly those that an independent reading accepts and that are newer
// than all before of their VPN, as they are; all others are told in one line and change nothing.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "desired.h"
#include "fuzz.h"
#include "link.h"
#include "log.h"
#include "report.h"

namespace {

using kavel::link::AgentPort;
using kavel::link::BrokerPort;
using kavel::link::Desired;
using kavel::link::Link;
using kavel::link::Unusable;

constexpr std::string_view kBefore = "kavel/branch-1/desired/";
constexpr std::string_view kReported = "kavel/branch-1/reported/";
constexpr size_t kMessagesMax = 64;

struct Input {
    std::string topic;
    std::optional<std::string> revision;
    std::optional<std::string> platform;
    std::string payload;
};

// The number that the text is the one decimal form of, if it is from `First` to `Last`.
std::optional<uint64_t> Number(std::string_view Text, uint64_t First, uint64_t Last)
{
    for (const char Digit : Text) {
        if (Digit < '0' || Digit > '9') {
            return std::nullopt;
        }
    }
    constexpr size_t LongestNumber = 19;
    if (Text.empty() || Text.size() > LongestNumber || (Text.size() > 1 && Text.front() == '0')) {
        return std::nullopt;
    }
    const uint64_t Value = std::stoull(std::string(Text));
    return Value >= First && Value <= Last ? std::optional(Value) : std::nullopt;
}

std::optional<uint64_t> VpnOf(const Input &Message)
{
    const std::string_view Topic = Message.topic;
    return Topic.starts_with(kBefore) ? Number(Topic.substr(kBefore.size()), 0, UINT32_MAX) : std::nullopt;
}

std::optional<uint64_t> RevisionOf(const Input &Message)
{
    const bool IsPlatform = !Message.platform || *Message.platform == "cpe" || *Message.platform == "pop";
    const bool IsUsable = IsPlatform && !Message.payload.empty() && Message.revision.has_value();
    return IsUsable ? Number(*Message.revision, 1, INT64_MAX) : std::nullopt;
}

// At most so many parts; the last one has the rest.
std::vector<std::string> Split(std::string_view Text, char Between, size_t Most)
{
    std::vector<std::string> Parts;
    while (Parts.size() + 1 < Most && Text.find(Between) != std::string_view::npos) {
        Parts.emplace_back(Text.substr(0, Text.find(Between)));
        Text.remove_prefix(Parts.back().size() + 1);
    }
    Parts.emplace_back(Text);
    return Parts;
}

std::optional<std::string> Property(const std::string &Field)
{
    return Field == "-" ? std::nullopt : std::optional(Field);
}

std::vector<Input> MessagesIn(std::string_view Text)
{
    constexpr size_t FieldsOfMessage = 4;
    std::vector<Input> Messages;
    for (const std::string &Line : Split(Text, '\n', kMessagesMax)) {
        std::vector<std::string> Fields = Split(Line, '|', FieldsOfMessage);
        Fields.resize(FieldsOfMessage);
        Messages.push_back({Fields[0], Property(Fields[1]), Property(Fields[2]), Fields[3]});
    }
    return Messages;
}

kavel::broker::Message Published(const Input &Message)
{
    kavel::broker::Message Made{Message.topic, {Message.payload.begin(), Message.payload.end()}};
    if (Message.revision) {
        Made.properties.emplace("revision", *Message.revision);
    }
    if (Message.platform) {
        Made.properties.emplace("platform", *Message.platform);
    }
    return Made;
}

// Keeps the request that it was given last.
class Agent : public AgentPort {
  public:
    void Start(Events /*events*/) override {}
    void Send(const Kavel__Request &Request) override
    {
        fuzz::Require(!isBusy, "a second request is under way");
        isBusy = true;
        isApply = Request.verb == KAVEL__REQUEST__VERB__APPLY;
        if (!isApply) {
            return;
        }
        fuzz::Require(Request.has_vpn != 0 && Request.has_only_newer != 0 && Request.only_newer != 0,
                      "an APPLY is not one for newer messages of a VPN");
        vpn = Request.vpn;
        revision = Request.revision;
        payload.assign(Request.message.data, Request.message.data + Request.message.len);
        platform = Request.has_pop == 0 ? std::nullopt : std::optional<std::string>(Request.pop != 0 ? "pop" : "cpe");
    }

    bool isBusy = false;
    bool isApply = false;
    uint32_t vpn = 0;
    std::string revision;
    std::string payload;
    std::optional<std::string> platform;
};

class Broker : public BrokerPort {
  public:
    std::optional<uint64_t> Publish(const kavel::broker::Message &Message) override
    {
        texts[Message.topic] = {Message.payload.begin(), Message.payload.end()};
        unacknowledged.push_back(++last);
        return last;
    }
    void AskAgain(const std::string & /*topic*/) override { fuzz::Fail("a message is asked for again"); }

    std::map<std::string, std::string> texts;
    std::vector<uint64_t> unacknowledged;

  private:
    uint64_t last = 0;
};

class World {
  public:
    World()
    {
        m_Link.BrokerConnected();
        m_Link.AgentConnected();
        Answer();
        Acknowledge();
    }

    void Give(const Input &Message)
    {
        m_Link.Received(Published(Message));
        const auto Vpn = VpnOf(Message);
        const auto Revision = Vpn ? RevisionOf(Message) : std::nullopt;
        const bool IsNewer = Revision && *Revision > m_Newest[*Vpn];
        fuzz::Require(m_Agent.isBusy == IsNewer, IsNewer ? "a newer message is not applied" : "a message is applied");
        if (IsNewer) {
            m_Newest[*Vpn] = *Revision;
            CheckRequest(Message, static_cast<uint32_t>(*Vpn));
            Answer();
        }
        Acknowledge();
        if (Vpn) {
            CheckReport(*Vpn, Revision.has_value());
        } else {
            fuzz::Require(m_Broker.texts.size() == m_Told.size() + 1, "a foreign message is reported");
        }
    }

  private:
    void CheckRequest(const Input &Message, uint32_t Vpn) const
    {
        fuzz::Require(m_Agent.isApply && m_Agent.vpn == Vpn, "a message is applied for another VPN");
        fuzz::Require(m_Agent.revision == Message.revision, "a message is applied as another revision");
        fuzz::Require(m_Agent.payload == Message.payload, "another message is applied");
        fuzz::Require(m_Agent.platform == Message.platform, "a message is applied for another platform");
    }

    void CheckReport(uint64_t Vpn, bool IsUsable)
    {
        m_Told.insert_or_assign(Vpn, true);
        const auto Text = m_Broker.texts.find(std::string(kReported) + std::to_string(Vpn));
        fuzz::Require(Text != m_Broker.texts.end(), "a VPN has no report");
        const auto Report = kavel::broker::ParseReport(Text->second);
        fuzz::Require(Report.revision.value_or(0) == m_Newest[Vpn], "another revision is reported");
        fuzz::Require(Report.problem.empty() == IsUsable, "a problem is not told, or one that there is not");
        fuzz::Require(fuzz::IsOneLine(Report.problem), "a problem is not one line");
    }

    void Answer()
    {
        m_Agent.isBusy = false;
        Kavel__Reply Reply = KAVEL__REPLY__INIT;
        m_Link.Answered(Reply);
    }

    void Acknowledge()
    {
        while (!m_Broker.unacknowledged.empty()) {
            for (const uint64_t Publication : std::exchange(m_Broker.unacknowledged, {})) {
                m_Link.Published(Publication, "");
            }
        }
    }

    Agent m_Agent;
    Broker m_Broker;
    Link m_Link{
        {"branch-1", "1", [] { return Link::Time(std::chrono::hours(1)); }, [] { return 1000; }}, m_Agent, m_Broker};
    std::map<uint64_t, uint64_t> m_Newest; // by VPN
    std::map<uint64_t, bool> m_Told;       // VPNs of which there is a report
};

void CheckReading(const Input &Message)
{
    const auto Read = kavel::link::ReadDesired("branch-1", Published(Message));
    const auto Vpn = VpnOf(Message);
    if (const Unusable *Refused = std::get_if<Unusable>(&Read)) {
        fuzz::Require(!Vpn || !RevisionOf(Message), "a good message is refused");
        fuzz::Require(Refused->vpn == Vpn, "a refusal is about another VPN");
        fuzz::Require(!Refused->problem.empty() && fuzz::IsOneLine(Refused->problem), "a refusal is not one line");
        return;
    }
    const auto &Accepted = std::get<Desired>(Read);
    fuzz::Require(Vpn == Accepted.vpn && RevisionOf(Message) == Accepted.revision, "a bad message is accepted");
    fuzz::Require(!Accepted.payload.empty(), "an empty message is accepted");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    kavel::ConfigureLog(kavel::LogLevel::kError);
    World Box;
    for (const Input &Message : MessagesIn({reinterpret_cast<const char *>(Data), Size})) {
        CheckReading(Message);
        Box.Give(Message);
    }
    return 0;
}
