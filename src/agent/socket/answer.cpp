#include "socket/answer.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "frame.h"

namespace kavel::agent {
namespace {

// The generated structures do not change the text that they point at.
char *Borrow(const std::string &text)
{
    return const_cast<char *>(text.c_str()); // NOLINT(cppcoreguidelines-pro-type-const-cast): for those structures
}

char *BorrowOrNull(const std::optional<std::string> &text)
{
    return text ? Borrow(*text) : nullptr;
}

std::vector<char *> BorrowAll(const std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    std::ranges::transform(texts, std::back_inserter(pointers), Borrow);
    return pointers;
}

template <typename Message>
std::vector<Message *> PointersTo(std::vector<Message> &messages)
{
    std::vector<Message *> pointers;
    std::ranges::transform(messages, std::back_inserter(pointers), [](Message &message) { return &message; });
    return pointers;
}

// The findings about a VPN as messages. They point into `findings`, which must outlive this object.
class PackedFindings {
  public:
    PackedFindings(const std::vector<Finding> &findings, std::uint32_t vpnId, const std::string &netns)
    {
        remedies_.reserve(findings.size());
        for (const Finding &finding : findings) {
            Kavel__Finding &message = messages_.emplace_back();
            kavel__finding__init(&message);
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): as Borrow()
            message.code = const_cast<char *>(CodeOf(finding.fault).data());
            message.text = Borrow(finding.text);
            message.remedy = Borrow(remedies_.emplace_back(RemedyOf(finding, vpnId, netns)));
            message.has_vpn = 1;
            message.vpn = vpnId;
        }
        pointers_ = PointersTo(messages_);
    }

    std::vector<Kavel__Finding *> &Pointers() { return pointers_; }

  private:
    std::vector<std::string> remedies_;
    std::vector<Kavel__Finding> messages_;
    std::vector<Kavel__Finding *> pointers_;
};

ProtobufCBinaryData BorrowBytes(const std::vector<std::uint8_t> &bytes)
{
    return {bytes.size(),
            const_cast<std::uint8_t *>(bytes.data())}; // NOLINT(cppcoreguidelines-pro-type-const-cast): as Borrow()
}

// Points into `sent`.
Kavel__HistoryEntry PackEntry(const SentHistoryEntry &sent)
{
    Kavel__HistoryEntry message = KAVEL__HISTORY_ENTRY__INIT;
    message.vpn = sent.vpn;
    message.time = static_cast<std::uint64_t>(sent.entry.time);
    message.sender = Borrow(sent.entry.peer);
    message.revision = BorrowOrNull(sent.entry.revision);
    message.result = sent.entry.result;
    message.outcome = Borrow(sent.entry.outcome);
    message.bytes = sent.entry.messageBytes;
    if (sent.entry.message) {
        message.has_message = 1;
        message.message = BorrowBytes(*sent.entry.message);
    }
    message.has_pop = message.pop = sent.platform == Platform::kPop ? 1 : 0;
    message.has_undone = message.undone = sent.isUndone ? 1 : 0;
    return message;
}

// A VPN's status with its texts, which point into the status.
class PackedStatus {
  public:
    explicit PackedStatus(const VpnStatus &status)
        : message_(status.fields), problems_(status.problems, status.fields.vpn, status.netns)
    {
        message_.namespace_ = Borrow(status.netns);
        message_.last_end = BorrowOrNull(status.lastEnd);
        message_.last_repair = BorrowOrNull(status.lastRepair);
        message_.revision = BorrowOrNull(status.revision);
        if (status.lastNumbered) {
            lastNumbered_ = PackEntry(*status.lastNumbered);
        }
    }

    // Valid until this object is moved or destroyed.
    Kavel__VpnStatus *Message()
    {
        message_.problems = problems_.Pointers().data();
        message_.n_problems = problems_.Pointers().size();
        message_.last_numbered = lastNumbered_ ? &*lastNumbered_ : nullptr;
        return &message_;
    }

  private:
    Kavel__VpnStatus message_;
    PackedFindings problems_;
    std::optional<Kavel__HistoryEntry> lastNumbered_;
};

// Points into `record`.
Kavel__StoredRecord PackRecord(const StoredRecord &record)
{
    Kavel__StoredRecord message = KAVEL__STORED_RECORD__INIT;
    message.vpn = record.vpn;
    message.bytes = record.bytes;
    if (record.problem) {
        message.problem = Borrow(*record.problem);
        return message;
    }
    message.enable = record.enable ? 1 : 0;
    message.has_enable = message.has_hosts = message.has_mx_hosts = message.has_servers = message.has_forwards = 1;
    message.hosts = record.hosts;
    message.mx_hosts = record.mxHosts;
    message.servers = record.servers;
    message.forwards = record.forwards;
    return message;
}

// Points into `sent`.
Kavel__PackedMessage PackMessage(const SentMessage &sent)
{
    Kavel__PackedMessage message = KAVEL__PACKED_MESSAGE__INIT;
    message.vpn = sent.vpn;
    message.message = BorrowBytes(sent.bytes);
    message.has_pop = message.pop = sent.platform == Platform::kPop ? 1 : 0;
    return message;
}

std::vector<std::uint8_t> PackReply(const Kavel__Reply &reply)
{
    const std::size_t size = kavel__reply__get_packed_size(&reply);
    std::vector<std::uint8_t> frame(control::kFrameHeaderSize + size);
    std::ranges::copy(control::EncodeFrameLength(size), frame.begin());
    kavel__reply__pack(&reply, frame.data() + control::kFrameHeaderSize);
    return frame;
}

std::optional<std::string> TextOf(const Answer &answer)
{
    return answer.text || answer.result >= 0 ? answer.text : std::optional(std::strerror(-answer.result));
}

Kavel__Start PackStart(const StartProgress &progress)
{
    Kavel__Start message = KAVEL__START__INIT;
    message.back = progress.back;
    message.total = progress.total;
    return message;
}

// Points into `status`.
Kavel__AgentStatus PackAgent(const AgentStatus &status)
{
    Kavel__AgentStatus message = KAVEL__AGENT_STATUS__INIT;
    message.version = Borrow(status.version);
    message.uptime_seconds = status.uptimeSeconds;
    message.memory_bytes = status.memoryBytes;
    message.restarts = status.restarts;
    return message;
}

struct PackedLog {
    explicit PackedLog(const LogState &state) : level(NameOf(state.level)), configured(NameOf(state.configured))
    {
        message.level = level.data();
        message.configured = configured.data();
        message.has_until = state.until ? 1 : 0;
        message.until = static_cast<std::uint64_t>(state.until.value_or(0));
    }

    std::string level;
    std::string configured;
    Kavel__LogState message = KAVEL__LOG_STATE__INIT;
};

// An outcome as a message. It points into the outcome, which must outlive this object.
class PackedQuery {
  public:
    explicit PackedQuery(const QueryOutcome &outcome) : way_(BorrowAll(outcome.way))
    {
        kavel__query_answer__init(&message_);
        if (outcome.answer) {
            answers_ = BorrowAll(outcome.answer->records);
            message_.rcode = outcome.answer->rcode;
        } else {
            message_.problem = Borrow(outcome.problem);
        }
        message_.milliseconds = static_cast<std::uint32_t>(outcome.duration.count());
        message_.differs = BorrowOrNull(outcome.differs);
    }

    // Valid until this object is moved or destroyed.
    Kavel__QueryAnswer *Message()
    {
        message_.answers = answers_.data();
        message_.n_answers = answers_.size();
        message_.way = way_.data();
        message_.n_way = way_.size();
        return &message_;
    }

  private:
    Kavel__QueryAnswer message_{};
    std::vector<char *> answers_;
    std::vector<char *> way_;
};

void SetKnown(protobuf_c_boolean &has, protobuf_c_boolean &field, std::optional<bool> value)
{
    has = value ? 1 : 0;
    field = value.value_or(false) ? 1 : 0;
}

void SetIfTrue(protobuf_c_boolean &has, protobuf_c_boolean &field, bool value)
{
    has = field = value ? 1 : 0;
}

} // namespace

Answer Refusal(std::int32_t result, std::optional<std::string> text)
{
    Answer answer;
    answer.result = result;
    answer.text = std::move(text);
    return answer;
}

Answer RefusalForNow(std::int32_t result, std::string text)
{
    Answer answer = Refusal(result, std::move(text));
    answer.mayRetry = true;
    return answer;
}

std::vector<std::uint8_t> PackAnswer(const Answer &answer)
{
    Kavel__Reply reply = KAVEL__REPLY__INIT;
    reply.result = answer.result;
    const std::optional<std::string> text = TextOf(answer);
    reply.text = BorrowOrNull(text);
    reply.reason = BorrowOrNull(answer.reason);
    reply.has_vpn = answer.vpn ? 1 : 0;
    reply.vpn = answer.vpn.value_or(0);
    std::optional<Kavel__Summary> summary = answer.summary;
    reply.summary = summary ? &*summary : nullptr;

    std::vector<PackedStatus> packed(answer.vpns.begin(), answer.vpns.end());
    std::vector<Kavel__VpnStatus *> messages;
    std::ranges::transform(packed, std::back_inserter(messages), &PackedStatus::Message);
    reply.vpns = messages.data();
    reply.n_vpns = messages.size();

    std::vector<PackedFindings> findingsOf;
    std::vector<Kavel__Finding *> findings;
    for (const VpnStatus &status : answer.findingsOf) {
        std::ranges::copy(findingsOf.emplace_back(status.problems, status.fields.vpn, status.netns).Pointers(),
                          std::back_inserter(findings));
    }
    reply.findings = findings.data();
    reply.n_findings = findings.size();

    std::vector<Kavel__StoredRecord> records;
    std::ranges::transform(answer.stored, std::back_inserter(records), PackRecord);
    std::vector<Kavel__StoredRecord *> stored = PointersTo(records);
    reply.stored = stored.data();
    reply.n_stored = stored.size();
    if (answer.storedText) {
        reply.has_stored_text = 1;
        reply.stored_text = {answer.storedText->size(), reinterpret_cast<std::uint8_t *>(Borrow(*answer.storedText))};
    }
    SetKnown(reply.has_enabled, reply.enabled, answer.enabled);
    SetKnown(reply.has_running, reply.running, answer.running);
    std::vector<char *> notes = BorrowAll(answer.notes);
    reply.notes = notes.data();
    reply.n_notes = notes.size();
    Kavel__Start start = PackStart(answer.start.value_or(StartProgress()));
    reply.start = answer.start ? &start : nullptr;
    reply.metrics = BorrowOrNull(answer.metrics);
    const AgentStatus ownStatus = answer.agent.value_or(AgentStatus());
    Kavel__AgentStatus agent = PackAgent(ownStatus);
    reply.agent = answer.agent ? &agent : nullptr;
    SetIfTrue(reply.has_unknown_vpn, reply.unknown_vpn, answer.isUnknownVpn);
    SetIfTrue(reply.has_not_newer, reply.not_newer, answer.isNotNewer);
    SetIfTrue(reply.has_retry, reply.retry, answer.mayRetry);
    reply.in_force_revision = BorrowOrNull(answer.inForceRevision);
    PackedLog log(answer.log.value_or(LogState()));
    reply.log = answer.log ? &log.message : nullptr;
    std::optional<PackedQuery> query;
    if (answer.query) {
        reply.query = query.emplace(*answer.query).Message();
    }
    std::vector<Kavel__PackedMessage> packedMessages;
    std::ranges::transform(answer.messages, std::back_inserter(packedMessages), PackMessage);
    std::vector<Kavel__PackedMessage *> sentMessages = PointersTo(packedMessages);
    reply.messages = sentMessages.data();
    reply.n_messages = sentMessages.size();
    std::vector<Kavel__HistoryEntry> entries;
    std::ranges::transform(answer.history, std::back_inserter(entries), PackEntry);
    std::vector<Kavel__HistoryEntry *> history = PointersTo(entries);
    reply.history = history.data();
    reply.n_history = history.size();
    return PackReply(reply);
}

} // namespace kavel::agent
