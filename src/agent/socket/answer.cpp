#include "socket/answer.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "frame.h"

namespace kavel::agent {
namespace {

// The generated structures point at text without changing it.
char *Borrow(const std::string &text)
{
    return const_cast<char *>(text.c_str()); // NOLINT(cppcoreguidelines-pro-type-const-cast): for those structures
}

void Put(std::optional<bool> value, protobuf_c_boolean &has, protobuf_c_boolean &target)
{
    has = value ? 1 : 0;
    target = value.value_or(false) ? 1 : 0;
}

// One VPN's status as the message has it; it points into `status`.
class PackedStatus {
  public:
    explicit PackedStatus(const VpnStatus &status) : message_(KAVEL__VPN_STATUS__INIT)
    {
        for (const std::string &problem : status.problems) {
            problems_.push_back(Borrow(problem));
        }
        TakeProcess(status);
        message_.hosts = status.hosts;
        message_.mx_hosts = status.mxHosts;
        message_.servers = status.servers;
        message_.forwards = status.forwards;
        message_.routes = status.routes;
        Put(status.stored, message_.has_stored, message_.stored);
        Put(status.storedEnable, message_.has_stored_enable, message_.stored_enable);
        Put(status.rule, message_.has_rule, message_.rule);
        Put(status.dnat, message_.has_dnat, message_.dnat);
    }

    // Valid while this object stays where it is.
    Kavel__VpnStatus *Message()
    {
        message_.problems = problems_.data();
        message_.n_problems = problems_.size();
        return &message_;
    }

  private:
    void TakeProcess(const VpnStatus &status)
    {
        message_.vpn = status.vpn;
        message_.namespace_ = Borrow(status.netns);
        message_.meant = status.meant ? 1 : 0;
        message_.pid_file = status.pidFile ? 1 : 0;
        message_.pid = status.pid;
        message_.alive = status.alive ? 1 : 0;
        message_.is_dnsmasq = status.isDnsmasq ? 1 : 0;
        message_.in_namespace = status.inNamespace ? 1 : 0;
        message_.answers = status.answers ? 1 : 0;
        message_.uptime_seconds = status.uptimeSeconds;
        message_.memory_bytes = status.memoryBytes;
    }

    Kavel__VpnStatus message_;
    std::vector<char *> problems_;
};

// Points into `record`.
Kavel__StoredRecord PackRecord(const StoredRecord &record)
{
    Kavel__StoredRecord message = KAVEL__STORED_RECORD__INIT;
    message.vpn = record.vpn;
    message.bytes = record.bytes;
    if (!record.problem.empty()) {
        message.problem = Borrow(record.problem);
        return message;
    }
    Put(record.enable, message.has_enable, message.enable);
    message.has_hosts = message.has_mx_hosts = message.has_servers = message.has_forwards = 1;
    message.hosts = record.hosts;
    message.mx_hosts = record.mxHosts;
    message.servers = record.servers;
    message.forwards = record.forwards;
    return message;
}

template <typename Message>
std::vector<Message *> PointersTo(std::vector<Message> &messages)
{
    std::vector<Message *> pointers;
    std::ranges::transform(messages, std::back_inserter(pointers), [](Message &message) { return &message; });
    return pointers;
}

std::vector<std::uint8_t> PackReply(const Kavel__Reply &reply)
{
    const std::size_t size = kavel__reply__get_packed_size(&reply);
    std::vector<std::uint8_t> frame(control::kFrameHeaderSize + size);
    std::ranges::copy(control::EncodeFrameLength(size), frame.begin());
    kavel__reply__pack(&reply, frame.data() + control::kFrameHeaderSize);
    return frame;
}

std::string TextOf(const Answer &answer)
{
    return answer.text.empty() && answer.result < 0 ? std::strerror(-answer.result) : answer.text;
}

} // namespace

Answer Refusal(std::int32_t result, std::string text)
{
    Answer answer;
    answer.result = result;
    answer.text = std::move(text);
    return answer;
}

std::vector<std::uint8_t> PackAnswer(const Answer &answer)
{
    Kavel__Reply reply = KAVEL__REPLY__INIT;
    reply.result = answer.result;
    const std::string text = TextOf(answer);
    reply.text = text.empty() ? nullptr : Borrow(text);
    reply.reason = answer.reason.empty() ? nullptr : Borrow(answer.reason);
    reply.has_vpn = answer.vpn ? 1 : 0;
    reply.vpn = answer.vpn.value_or(0);
    std::optional<Kavel__Summary> summary = answer.summary;
    reply.summary = summary ? &*summary : nullptr;

    std::vector<PackedStatus> packed(answer.vpns.begin(), answer.vpns.end());
    std::vector<Kavel__VpnStatus *> messages;
    std::ranges::transform(packed, std::back_inserter(messages), &PackedStatus::Message);
    reply.vpns = messages.data();
    reply.n_vpns = messages.size();

    std::vector<Kavel__StoredRecord> records;
    std::ranges::transform(answer.stored, std::back_inserter(records), PackRecord);
    std::vector<Kavel__StoredRecord *> stored = PointersTo(records);
    reply.stored = stored.data();
    reply.n_stored = stored.size();
    if (answer.storedText) {
        reply.has_stored_text = 1;
        reply.stored_text = {answer.storedText->size(), reinterpret_cast<std::uint8_t *>(Borrow(*answer.storedText))};
    }
    return PackReply(reply);
}

} // namespace kavel::agent
