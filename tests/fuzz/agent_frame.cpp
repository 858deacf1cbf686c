// What a peer of the control socket sends: bytes in pieces of any size, the frames that the agent finds in them, and
// the requests in those. The first byte of an input is the size of the pieces, 0 for all at once.
//
// Requests go to the agent's own handler, with the real module behind it, unless they would change or look at the box.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

#include "base/child_reaper.h"
#include "control.pb-c.h"
#include "cpe_model.h"
#include "domain_matcher.h"
#include "frame.h"
#include "fuzz.h"
#include "instances/controller_message.h"
#include "instances/pending_launches.h"
#include "log.h"
#include "services/host.h"
#include "socket/answer.h"
#include "socket/connection.h"
#include "socket/requests.h"
#include "supervision/supervisor.h"

namespace {

using kavel::agent::Answer;
using kavel::agent::Connection;

using Buffer = std::vector<uint8_t>;

// The VPN of most seeds. It has no namespace.
constexpr uint32_t ServedVpn = 7;

kavel::agent::Config Configuration()
{
    kavel::agent::Config Out;
    Out.vpns.resize(1);
    Out.vpns.front().id = ServedVpn;
    Out.vpns.front().netns = "no-namespace";
    return Out;
}

// What the stream holds, worked out without the agent's code.
struct Stream {
    std::vector<Buffer> Frames;
    bool IsTooLong = false; // the next frame is announced longer than the agent takes
    bool IsCut = false;     // it ends within a frame
};

Stream Split(fuzz::Bytes Left)
{
    constexpr size_t Header = 4;
    constexpr uint32_t Longest = 16U * 1024 * 1024;
    Stream Out;
    while (Left.size() >= Header) {
        const uint32_t Length = fuzz::Input(Left).Word();
        Out.IsTooLong = Length > Longest;
        if (Out.IsTooLong || Left.size() - Header < Length) {
            break;
        }
        const fuzz::Bytes Frame = Left.subspan(Header, Length);
        Out.Frames.emplace_back(Frame.begin(), Frame.end());
        Left = Left.subspan(Header + Length);
    }
    Out.IsCut = !Left.empty();
    return Out;
}

// Any number that a peer can send, whatever the enumeration has room for.
int32_t VerbOf(const Kavel__Request &Request)
{
    int32_t Out = 0;
    std::memcpy(&Out, &Request.verb, sizeof(Out));
    return Out;
}

class Agent {
  public:
    Agent() { kavel::ConfigureLog(kavel::LogLevel::kError); }

    [[nodiscard]] Answer Handle(kavel::agent::ReceivedFrame Frame)
    {
        if (!IsHarmless(Frame.Content())) {
            return kavel::agent::Refusal(-EPERM, "not in a test");
        }
        std::optional<Answer> Given;
        m_Requests.Handle(std::move(Frame), [&Given](const Answer &Each) {
            fuzz::Require(!Given, "a request is answered twice");
            Given = Each;
        });
        fuzz::Require(Given.has_value(), "a request that launches nothing is not answered at once");
        return *Given;
    }

  private:
    static bool IsServed(uint32_t Vpn) { return Vpn == 0 || Vpn == ServedVpn; }

    // A VPN that is not configured is refused; the box itself, VPN 0, always is. What is stored and how the box does is
    // not looked at.
    static bool IsHarmless(fuzz::Bytes Frame)
    {
        const auto Envelope = kavel::agent::UnpackProtobuf(kavel__request__descriptor, Frame);
        if (!Envelope) {
            return true;
        }
        const auto &Request = *reinterpret_cast<const Kavel__Request *>(Envelope.get());
        if (protobuf_c_enum_descriptor_get_value(&kavel__request__verb__descriptor, VerbOf(Request)) == nullptr) {
            return true;
        }
        // Without a default: a verb that comes later does not compile until somebody has decided about it here.
        switch (Request.verb) {
        case KAVEL__REQUEST__VERB__APPLY: {
            const fuzz::Bytes Message(Request.message.data, Request.has_message != 0 ? Request.message.len : 0);
            const auto Unpacked = kavel::agent::UnpackControllerMessage(kavel::agent::Platform::kCpe, Message);
            return !Unpacked || !IsServed(Unpacked->vpn);
        }
        case KAVEL__REQUEST__VERB__STATUS:
        case KAVEL__REQUEST__VERB__REPAIR:
        case KAVEL__REQUEST__VERB__WHY:
            return Request.has_vpn != 0 && !IsServed(Request.vpn);
        case KAVEL__REQUEST__VERB__VPN_INIT:
        case KAVEL__REQUEST__VERB__VPN_RELEASE:
            return Request.has_vpn == 0 || Request.vpn != ServedVpn;
        case KAVEL__REQUEST__VERB__STOP:
        case KAVEL__REQUEST__VERB__QUERY:
        case KAVEL__REQUEST__VERB__IN_FORCE:
        case KAVEL__REQUEST__VERB__CONFIRM:
        case KAVEL__REQUEST__VERB__FLUSH:
            return Request.has_vpn == 0 || !IsServed(Request.vpn);
        case KAVEL__REQUEST__VERB__CHECK:
            return true;
        case KAVEL__REQUEST__VERB__STORE_LIST:
        case KAVEL__REQUEST__VERB__STORE_SHOW:
        case KAVEL__REQUEST__VERB__STORE_EXPORT:
        case KAVEL__REQUEST__VERB__HISTORY:
        case KAVEL__REQUEST__VERB__METRICS:
        case KAVEL__REQUEST__VERB__LOG_LEVEL:
        case _KAVEL__REQUEST__VERB_IS_INT_SIZE:
            return false;
        }
        return false;
    }

    kavel::agent::Host m_Host{Configuration()};
    kavel::agent::ModuleSilence m_Silence{m_Host};
    kavel::agent::Module m_Module{KAVEL_MODULE, m_Host};
    kavel::EventLoop m_Loop;
    kavel::agent::Instances m_Instances;
    kavel::agent::PendingLaunches m_Launches{m_Loop, m_Instances, m_Host.launchOutputs};
    kavel::agent::ChildReaper m_Reaper{m_Loop};
    kavel::agent::Supervisor m_Supervisor{m_Loop, m_Host, m_Instances, m_Module.Functions(), m_Launches, m_Reaper};
    kavel::agent::Requests m_Requests{m_Loop, m_Host, m_Instances, m_Module.Functions(), m_Launches, m_Supervisor};
};

// The module takes a name as it comes; what would end its line or is no part of a name is kept from it.
bool HasHarmfulInterface(const DnsmasqConf &Message)
{
    const std::span<DnsServerItem *const> Servers(Message.dnsservers, Message.n_dnsservers);
    return std::ranges::any_of(Servers, [](const DnsServerItem *Each) {
        return Each->ifname != nullptr && std::ranges::any_of(std::string_view(Each->ifname), [](unsigned char Letter) {
                   return Letter <= ' ' || Letter == 0x7f || Letter == '/' || Letter == ':';
               });
    });
}

// dnsmasq starts with labels of 63 characters at most, and with 253 characters if one is a capital.
bool IsTooLong(const char *Name)
{
    const std::string_view Text = Name == nullptr ? "" : Name;
    const auto IsCapital = [](char Letter) { return Letter >= 'A' && Letter <= 'Z'; };
    size_t Label = 0;
    for (const char Letter : Text) {
        Label = Letter == '.' ? 0 : Label + 1;
        if (Label > 63) {
            return true;
        }
    }
    return Text.size() > 253 && std::ranges::any_of(Text, IsCapital);
}

// Whether the instance of this message would not come up.
bool IsRefusedByDnsmasq(const DnsmasqConf &Message)
{
    const auto IsBadMx = [](const DnsMxHostItem *Each) {
        return Each->preference > 65535 || IsTooLong(Each->sourcedomain) || IsTooLong(Each->targetdomain);
    };
    const auto IsBadServer = [](const DnsServerItem *Each) {
        return Each->ifname != nullptr &&
               std::string_view(Each->ifname).find_first_of("\"#@") != std::string_view::npos;
    };
    const auto IsBadForward = [](const DnsProxyItemV2 *Each) {
        return std::ranges::any_of(std::span(Each->domains, Each->n_domains),
                                   [](const char *Name) { return IsTooLong(Name) && fuzz::IsDomain(Name); });
    };
    return std::ranges::any_of(std::span(Message.dnsmxhost, Message.n_dnsmxhost), IsBadMx) ||
           std::ranges::any_of(std::span(Message.dnsservers, Message.n_dnsservers), IsBadServer) ||
           std::ranges::any_of(std::span(Message.dnsproxies, Message.n_dnsproxies), IsBadForward);
}

int ExpectedResult(const DnsmasqConf &Message)
{
    if (Message.has_vpnid != 0 && Message.vpnid != 0 && Message.vpnid != ServedVpn) {
        return -ENOENT;
    }
    const bool Enables = Message.enable != 0;
    if (HasHarmfulInterface(Message) || (Enables && IsRefusedByDnsmasq(Message))) {
        return -EINVAL;
    }
    const int Result = fuzz::CpeModel(Message).Result();
    return Result == 0 && Enables && Message.operation > 1 ? -EINVAL : Result;
}

// The number that a revision is; nothing if it is another name. Worked out without the agent's code.
std::optional<uint64_t> NumberOf(const char *Revision)
{
    constexpr size_t MostDigits = 19; // of 2^63 - 1; that many fit into 64 bits
    const std::string_view Text = Revision == nullptr ? "" : Revision;
    const bool IsDecimal = std::ranges::all_of(Text, [](char Letter) { return Letter >= '0' && Letter <= '9'; });
    if (Text.empty() || Text.size() > MostDigits || Text.front() == '0' || !IsDecimal) {
        return std::nullopt;
    }
    uint64_t Out = 0;
    for (const char Digit : Text) {
        Out = Out * 10 + static_cast<uint64_t>(Digit - '0');
    }
    return Out <= INT64_MAX ? std::optional(Out) : std::nullopt;
}

// Nothing here is configured: a message is refused for its form, for that, or because one that is not older was
// refused.
void CheckApply(const Kavel__Request &Request, const Answer &Given)
{
    const bool IsOnlyNewer = Request.has_only_newer != 0 && Request.only_newer != 0;
    const auto Number = NumberOf(Request.revision);
    if ((Request.has_pop != 0 && Request.pop != 0) || (IsOnlyNewer && !Number) ||
        (Request.has_vpn != 0 && Given.vpn && Given.vpn != Request.vpn)) {
        fuzz::RequireSame("the result of a request with another form", Given.result, -EINVAL);
    }
    fuzz::Require(!Given.mayRetry, "a refusal that stays is to be tried again");
    fuzz::Require(Given.isNotNewer == (Given.result == -EALREADY), "a revision is not newer, or it is");
    if (Given.isNotNewer) {
        fuzz::Require(IsOnlyNewer, "a revision is compared although nobody asked for it");
        fuzz::Require(Given.history.size() == 1, "there is not one message to compare with");
        const kavel::agent::HistoryEntry &Last = Given.history.front().entry;
        fuzz::Require(NumberOf(Last.revision.value_or("").c_str()) >= Number, "a newer revision is not applied");
        fuzz::RequireSame("the result of the last message", Last.result, -ENOENT);
    }
}

// A check of a message ends as the message's own model says.
void CheckVerdict(fuzz::Bytes Frame, const Answer &Given)
{
    const auto Envelope = kavel::agent::UnpackProtobuf(kavel__request__descriptor, Frame);
    if (!Envelope) {
        fuzz::RequireSame("the result of no request", Given.result, -EINVAL);
        return;
    }
    const auto &Request = *reinterpret_cast<const Kavel__Request *>(Envelope.get());
    if (VerbOf(Request) == KAVEL__REQUEST__VERB__APPLY && Given.result != -EPERM) {
        CheckApply(Request, Given);
    }
    if (VerbOf(Request) != KAVEL__REQUEST__VERB__CHECK) {
        fuzz::Require(Given.result < 0, "a request that cannot be carried out is");
        return;
    }
    const fuzz::Bytes Message(Request.message.data, Request.has_message != 0 ? Request.message.len : 0);
    const auto Unpacked = kavel::agent::UnpackControllerMessage(kavel::agent::Platform::kCpe, Message);
    const int Expected = Unpacked ? ExpectedResult(*Unpacked->pointer.DnsmasqPbCPE) : -EINVAL;
    fuzz::RequireSame("the result of a check", Given.result, Expected);
    fuzz::Require(Given.summary.has_value() == (Expected == 0), "a summary without a message, or the other way round");
}

// The other end.
class Peer {
  public:
    explicit Peer(kavel::UniqueFd Socket) : m_Socket(std::move(Socket)) {}

    void Send(fuzz::Bytes Piece) const
    {
        const ssize_t Sent = send(m_Socket.Get(), Piece.data(), Piece.size(), MSG_NOSIGNAL);
        fuzz::Require(Sent == static_cast<ssize_t>(Piece.size()), "the agent's end takes no more");
    }

    void End() const { static_cast<void>(shutdown(m_Socket.Get(), SHUT_WR)); }

    // Everything that was sent back so far and not yet taken.
    [[nodiscard]] Buffer Receive() const
    {
        Buffer Out;
        std::array<uint8_t, 4096> Piece{};
        for (;;) {
            const ssize_t Length = recv(m_Socket.Get(), Piece.data(), Piece.size(), 0);
            if (Length <= 0) {
                return Out;
            }
            Out.insert(Out.end(), Piece.begin(), Piece.begin() + Length);
        }
    }

  private:
    kavel::UniqueFd m_Socket;
};

// One frame came back, and it holds a reply of this result.
void CheckReply(const Buffer &Received, int32_t Result)
{
    const Stream Replies = Split(Received);
    fuzz::Require(Replies.Frames.size() == 1 && !Replies.IsCut, "a request has another number of replies than one");
    const auto Reply = kavel::agent::UnpackProtobuf(kavel__reply__descriptor, Replies.Frames.front());
    fuzz::Require(Reply != nullptr, "a reply cannot be unpacked");
    fuzz::RequireSame("the result in the reply", reinterpret_cast<const Kavel__Reply *>(Reply.get())->result, Result);
}

class Conversation {
  public:
    Conversation(kavel::UniqueFd Here, kavel::UniqueFd There, const Stream &Expected)
        : m_Connection(std::move(Here), 1, {}, m_Budget), m_Peer(std::move(There)), m_Expected(Expected)
    {
    }

    void Hear(fuzz::Bytes Piece)
    {
        m_Peer.Send(Piece);
        m_Connection.Advance({});
        while (m_Connection.HasFrame()) {
            AnswerFrame();
        }
        if (m_Connection.IsOversized()) {
            Dismiss();
        }
    }

    void End()
    {
        m_Peer.End();
        m_Connection.Advance({});
        fuzz::RequireSame("the number of frames", static_cast<int64_t>(m_Heard),
                          static_cast<int64_t>(m_Expected.Frames.size()));
        fuzz::Require(m_IsDismissed == m_Expected.IsTooLong, "a peer is dismissed, or not, for another length");
        fuzz::Require(m_Connection.IsFinished(), "a peer that has gone is still waited for");
        fuzz::Require(m_Connection.IsTruncated() == (m_Expected.IsCut && !m_IsDismissed),
                      "an end is taken for another");
    }

  private:
    void AnswerFrame()
    {
        static Agent Here;
        const kavel::agent::ReceivedFrame Received = m_Connection.BeginRequest();
        const fuzz::Bytes Frame = Received.Content();
        fuzz::Require(m_Heard < m_Expected.Frames.size() && std::ranges::equal(Frame, m_Expected.Frames[m_Heard]),
                      "a frame that was not sent");
        ++m_Heard;
        const Answer Given = Here.Handle(Received);
        CheckVerdict(Frame, Given);
        m_Connection.Reply(kavel::agent::PackAnswer(Given), {});
        CheckReply(m_Peer.Receive(), Given.result);
    }

    void Dismiss()
    {
        m_IsDismissed = true;
        m_Connection.Dismiss(kavel::agent::PackAnswer(kavel::agent::Refusal(-EMSGSIZE, "")), {});
        CheckReply(m_Peer.Receive(), -EMSGSIZE);
    }

    kavel::agent::ReceiveBudget m_Budget{kavel::control::kFrameMax};
    Connection m_Connection;
    Peer m_Peer;
    const Stream &m_Expected;
    size_t m_Heard = 0;
    bool m_IsDismissed = false;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    if (Size == 0) {
        return 0;
    }
    std::array<int, 2> Sockets{};
    fuzz::Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, Sockets.data()) == 0,
                  "there are no sockets");
    fuzz::Bytes Left(Data + 1, Size - 1);
    const Stream Expected = Split(Left);
    Conversation Talk(kavel::UniqueFd{Sockets[0]}, kavel::UniqueFd{Sockets[1]}, Expected);
    const size_t Piece = Data[0] == 0 ? Left.size() : Data[0];
    while (!Left.empty()) {
        const fuzz::Bytes Next = Left.first(std::min(Piece, Left.size()));
        Left = Left.subspan(Next.size());
        Talk.Hear(Next);
    }
    Talk.End();
    return 0;
}
