#include "cpe_model.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <span>
#include <string_view>

#include "domain_matcher.h"

namespace fuzz {

namespace {

constexpr uint32_t kReboot = 1;

template <typename T>
std::span<T> ListOf(T *Items, size_t Count)
{
    return Count == 0 ? std::span<T>() : std::span<T>(Items, Count);
}

std::string_view TextOf(const char *Text)
{
    return Text == nullptr ? std::string_view() : std::string_view(Text);
}

// The first result that is not 0.
int FirstFault(std::initializer_list<int> Results)
{
    for (const int Each : Results) {
        if (Each != 0) {
            return Each;
        }
    }
    return 0;
}

bool IsGoodMx(const DnsMxHostItem &Item)
{
    constexpr uint32_t LargestPreference = 65536;
    return IsDomain(TextOf(Item.targetdomain)) && IsDomain(TextOf(Item.sourcedomain)) &&
           Item.preference <= LargestPreference;
}

// DNS limits a label to 63 characters. The module limits runs of letters and digits, which a hyphen or a backslash ends
// as well, so a label of several runs can be longer.
bool HasLongLabel(std::string_view Name)
{
    constexpr size_t LongestLabel = 63;
    size_t Length = 0;
    for (const char Each : Name) {
        Length = Each == '.' ? 0 : Length + 1;
        if (Length > LongestLabel) {
            return true;
        }
    }
    return false;
}

// dnsmasq gives a special meaning to these characters.
bool IsPlainInterface(std::string_view Name)
{
    return std::ranges::all_of(Name, [](char Each) {
        return Each > ' ' && Each < '\x7f' && std::string_view("@#\"'\\,/").find(Each) == std::string_view::npos;
    });
}

} // namespace

std::string AddressText(uint32_t Address)
{
    std::string Out;
    for (const unsigned Shift : {24U, 16U, 8U, 0U}) {
        Out += (Out.empty() ? "" : ".") + std::to_string((Address >> Shift) & 255U);
    }
    return Out;
}

CpeModel::CpeModel(const DnsmasqConf &Message) : m_Message(Message)
{
    m_Result = FirstFault({CheckHosts(), CheckMxs(), CheckServers()});
    if (m_Result == 0) {
        m_Result = TakeForwards();
    }
    if (m_Result == 0) {
        MakeFiles();
    }
}

int CpeModel::ApplyResult() const
{
    return m_Message.enable != 0 && m_Message.operation > kReboot ? -EINVAL : 0;
}

int CpeModel::CheckHosts() const
{
    constexpr size_t Most = 1024;
    if (m_Message.n_dnshosts > Most) {
        return -EOVERFLOW;
    }
    const auto Items = ListOf(m_Message.dnshosts, m_Message.n_dnshosts);
    const bool Good = std::ranges::all_of(Items, [](const auto *Each) { return IsDomain(TextOf(Each->domain)); });
    return Good ? 0 : -EINVAL;
}

int CpeModel::CheckMxs() const
{
    constexpr size_t Most = 128;
    if (m_Message.n_dnsmxhost > Most) {
        return -EOVERFLOW;
    }
    const auto Items = ListOf(m_Message.dnsmxhost, m_Message.n_dnsmxhost);
    return std::ranges::all_of(Items, [](const auto *Each) { return IsGoodMx(*Each); }) ? 0 : -EINVAL;
}

int CpeModel::CheckServers() const
{
    constexpr size_t Most = 8;
    constexpr size_t LongestInterface = 15;
    if (m_Message.n_dnsservers > Most) {
        return -EOVERFLOW;
    }
    std::set<std::pair<uint32_t, std::string_view>> Seen;
    for (const DnsServerItem *Each : ListOf(m_Message.dnsservers, m_Message.n_dnsservers)) {
        const std::string_view Interface = TextOf(Each->ifname);
        if (Interface.size() > LongestInterface || !Seen.emplace(Each->dnsserver, Interface).second) {
            return -EINVAL;
        }
    }
    return 0;
}

int CpeModel::TakeForwards()
{
    constexpr size_t MostItems = 1024;
    constexpr size_t MostOfItem = 8;
    if (m_Message.n_dnsproxies > MostItems) {
        return -EOVERFLOW;
    }
    for (const DnsProxyItemV2 *Item : ListOf(m_Message.dnsproxies, m_Message.n_dnsproxies)) {
        if (Item->n_domains > MostOfItem || Item->n_serverips > MostOfItem) {
            return -EOVERFLOW;
        }
        for (const char *Domain : ListOf(Item->domains, Item->n_domains)) {
            for (const uint32_t Address : ListOf(Item->serverips, Item->n_serverips)) {
                if (IsDomain(TextOf(Domain)) && Address != 0) {
                    m_Forwards.emplace_back(Domain, Address);
                }
            }
        }
    }
    // The count has 16 bits, so a full table has the count 0.
    if (m_Forwards.size() == size_t{1} << 16U) {
        m_Forwards.clear();
    }
    return 0;
}

void CpeModel::MakeFiles()
{
    std::vector<std::string> Hosts;
    for (const DnsHostItem *Each : ListOf(m_Message.dnshosts, m_Message.n_dnshosts)) {
        Hosts.push_back(AddressText(Each->ip) + " " + Each->domain);
    }
    std::vector<std::string> Mxs;
    for (const DnsMxHostItem *Each : ListOf(m_Message.dnsmxhost, m_Message.n_dnsmxhost)) {
        Mxs.push_back(std::string("mx-host=") + Each->sourcedomain + "," + Each->targetdomain + "," +
                      std::to_string(Each->preference));
    }
    std::vector<std::string> Servers;
    std::vector<std::string> Resolvers;
    for (const DnsServerItem *Each : ListOf(m_Message.dnsservers, m_Message.n_dnsservers)) {
        Resolvers.push_back("nameserver " + AddressText(Each->dnsserver));
        if (!TextOf(Each->ifname).empty()) {
            Servers.push_back("server=" + AddressText(Each->dnsserver) + "@" + Each->ifname);
        }
    }
    std::vector<std::string> Forwards;
    Forwards.reserve(m_Forwards.size());
    for (const auto &[Domain, Address] : m_Forwards) {
        Forwards.push_back("server=/" + Domain + "/" + AddressText(Address));
    }
    const std::string Root =
        "/etc/kavel/dnsmasq/" + (VpnId() == 0 ? std::string() : "vpn_" + std::to_string(VpnId()) + "/");
    m_Files = {{Root + "hosts", Hosts},
               {Root + "dnsmasq.d/Mxhost.conf", Mxs},
               {Root + "dnsmasq.d/ServerMap.conf", Servers},
               {Root + "resolv.conf", Resolvers},
               {Root + "dnsmasq.d/DnsProxy.conf", Forwards}};
}

std::vector<std::string> CpeModel::Routes(const std::string &Interface) const
{
    std::set<uint32_t> Targets;
    for (const DnsServerItem *Each : ListOf(m_Message.dnsservers, m_Message.n_dnsservers)) {
        Targets.insert(Each->dnsserver);
    }
    for (const Forward &Each : m_Forwards) {
        Targets.insert(Each.second);
    }
    std::vector<std::string> Out;
    Out.reserve(Targets.size());
    for (const uint32_t Each : Targets) {
        Out.push_back(AddressText(Each) + "/32 dev " + Interface);
    }
    return Out;
}

// All names that dnsmasq checks at its start.
std::vector<std::string> CpeModel::Names() const
{
    std::vector<std::string> Out;
    for (const DnsMxHostItem *Each : ListOf(m_Message.dnsmxhost, m_Message.n_dnsmxhost)) {
        Out.insert(Out.end(), {Each->targetdomain, Each->sourcedomain});
    }
    for (const Forward &Each : m_Forwards) {
        Out.push_back(Each.first);
    }
    return Out;
}

std::string CpeModel::RefusedByDnsmasq() const
{
    constexpr uint32_t LargestPreference = 65535;
    constexpr size_t LongestName = 253;
    const auto Mxs = ListOf(m_Message.dnsmxhost, m_Message.n_dnsmxhost);
    const auto Servers = ListOf(m_Message.dnsservers, m_Message.n_dnsservers);
    if (std::ranges::any_of(Mxs, [](const auto *Each) { return Each->preference > LargestPreference; })) {
        return "a preference above 16 bits";
    }
    if (std::ranges::any_of(Names(), HasLongLabel)) {
        return "a label of more than 63 characters";
    }
    if (std::ranges::any_of(Names(), [](const std::string &Each) { return Each.size() > LongestName; })) {
        return "a name of 254 characters, one more than DNS allows";
    }
    if (!std::ranges::all_of(Servers, [](const auto *Each) { return IsPlainInterface(TextOf(Each->ifname)); })) {
        return "an invalid interface name";
    }
    return "";
}

bool CpeModel::HasLineFeedInInterface() const
{
    const auto Servers = ListOf(m_Message.dnsservers, m_Message.n_dnsservers);
    return std::ranges::any_of(
        Servers, [](const auto *Each) { return TextOf(Each->ifname).find('\n') != std::string_view::npos; });
}

} // namespace fuzz
