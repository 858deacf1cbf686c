#include "instances/record_message.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory_resource>
#include <span>

#include "advanced_dns.pb-c.h"

namespace kavel::agent {
namespace {

// Of domains and of servers in one item of a message.
constexpr std::size_t kPerItemMax = 8;

using RecordArena = std::pmr::monotonic_buffer_resource;
using Pairs = std::span<const VQ_DNS_PROXY_CONF>;

// The generated structures do not change the text that they point at.
char *Borrowed(const char *text)
{
    return const_cast<char *>(text); // NOLINT(cppcoreguidelines-pro-type-const-cast): for those structures
}

// New messages, each filled by `fill` from one entry, and the array of pointers to them.
template <typename Message, typename Entry, typename Fill>
Message **NewMessages(std::span<const Entry> entries, RecordArena &arena, Fill fill)
{
    std::pmr::polymorphic_allocator<> allocator(&arena);
    auto **const messages = allocator.allocate_object<Message *>(entries.size());
    std::ranges::transform(entries, messages, [&](const Entry &entry) {
        auto *const message = allocator.allocate_object<Message>();
        fill(entry, *message);
        return message;
    });
    return messages;
}

// The beginning of some pairs that is one item: `domains` times, the same `servers`.
struct Item {
    std::size_t domains = 0;
    std::size_t servers = 0;

    [[nodiscard]] std::size_t Pairs() const { return domains * servers; }
};

bool HaveSameDomain(const VQ_DNS_PROXY_CONF &one, const VQ_DNS_PROXY_CONF &other)
{
    return std::strcmp(one.Domain, other.Domain) == 0;
}

// Whether the second `servers` pairs are of one domain, and have the servers of the first.
bool RepeatsServers(Pairs pairs, std::size_t servers)
{
    const Pairs next = pairs.subspan(servers, servers);
    return std::ranges::equal(pairs.first(servers), next, {}, &VQ_DNS_PROXY_CONF::ServerIp,
                              &VQ_DNS_PROXY_CONF::ServerIp) &&
           std::ranges::all_of(next, [&](const VQ_DNS_PROXY_CONF &pair) { return HaveSameDomain(next.front(), pair); });
}

// The longest items at the beginning of `pairs`, by their number of servers.
std::vector<Item> ItemsAtBegin(Pairs pairs)
{
    std::vector<Item> items;
    for (std::size_t servers = 1; servers <= std::min(kPerItemMax, pairs.size()); ++servers) {
        if (!HaveSameDomain(pairs.front(), pairs[servers - 1])) {
            break;
        }
        Item item{1, servers};
        while (item.domains < kPerItemMax && item.Pairs() + servers <= pairs.size() &&
               RepeatsServers(pairs.subspan(item.Pairs() - servers), servers)) {
            ++item.domains;
        }
        items.push_back(item);
    }
    return items;
}

// As few items as possible that follow each other. An item may be shorter than the longest that begins at its place.
std::vector<Item> ItemsOf(Pairs pairs)
{
    struct Best {
        std::size_t count = 0; // of items from here to the end
        Item first;
    };
    std::vector<Best> best(pairs.size() + 1);
    for (std::size_t i = pairs.size(); i-- > 0;) {
        best[i].count = pairs.size() + 1;
        for (Item item : ItemsAtBegin(pairs.subspan(i))) {
            for (; item.domains > 0; --item.domains) {
                const std::size_t count = best[i + item.Pairs()].count + 1;
                best[i] = count < best[i].count ? Best{count, item} : best[i];
            }
        }
    }
    std::vector<Item> items;
    for (std::size_t i = 0; i < pairs.size(); i += items.back().Pairs()) {
        items.push_back(best[i].first);
    }
    return items;
}

void FillItem(DnsProxyItemV2 &message, Pairs pairs, Item item, RecordArena &arena)
{
    std::pmr::polymorphic_allocator<> allocator(&arena);
    dns_proxy_item_v2__init(&message);
    message.n_domains = item.domains;
    message.domains = allocator.allocate_object<char *>(item.domains);
    for (std::size_t i = 0; i < item.domains; ++i) {
        message.domains[i] = Borrowed(pairs[i * item.servers].Domain);
    }
    message.n_serverips = item.servers;
    message.serverips = allocator.allocate_object<std::uint32_t>(item.servers);
    std::ranges::transform(pairs.first(item.servers), message.serverips, &VQ_DNS_PROXY_CONF::ServerIp);
}

void FillForwards(DnsmasqConf &message, Pairs pairs, RecordArena &arena)
{
    const std::vector<Item> items = ItemsOf(pairs);
    message.n_dnsproxies = items.size();
    message.dnsproxies = NewMessages<DnsProxyItemV2>(
        std::span(items), arena, [&, at = std::size_t{0}](Item item, DnsProxyItemV2 &target) mutable {
            FillItem(target, pairs.subspan(at), item, arena);
            at += item.Pairs();
        });
}

void FillHost(const VQ_DNS_HOST_CONF &host, DnsHostItem &message)
{
    dns_host_item__init(&message);
    message.domain = Borrowed(host.Domain);
    message.ip = host.Ip;
}

void FillMxHost(const VQ_DNS_MX_HOST_CONF &mx, DnsMxHostItem &message)
{
    dns_mx_host_item__init(&message);
    message.targetdomain = Borrowed(mx.TargetDomain);
    message.sourcedomain = Borrowed(mx.SourceDomain);
    message.preference = mx.Preference;
}

void FillServer(const VQ_DNS_SERVER_CONF &server, DnsServerItem &message)
{
    dns_server_item__init(&message);
    message.dnsserver = server.DnsServerIp;
    message.ifname = server.Ifname[0] != '\0' ? Borrowed(server.Ifname) : nullptr;
}

template <auto PackedSize, auto Pack, typename Message>
std::vector<std::uint8_t> Packed(const Message &message)
{
    std::vector<std::uint8_t> bytes(PackedSize(&message));
    Pack(&message, bytes.data());
    return bytes;
}

std::vector<std::uint8_t> PackForCpe(const VQ_DNSMASQ_CONF &record)
{
    RecordArena arena;
    DnsmasqConf message = DNSMASQ_CONF__INIT;
    message.enable = record.Enable != FALSE ? 1 : 0;
    message.operation = static_cast<std::uint32_t>(record.Op);
    message.has_vpnid = message.has_persistentflag = 1;
    message.vpnid = record.VpnId;
    message.persistentflag = record.PersistentFlag != FALSE ? 1 : 0;
    message.n_dnshosts = record.DnsHostNum;
    message.dnshosts = NewMessages<DnsHostItem>(std::span(record.DnsHost).first(record.DnsHostNum), arena, FillHost);
    message.n_dnsmxhost = record.DnsMxHostNum;
    message.dnsmxhost =
        NewMessages<DnsMxHostItem>(std::span(record.DnsMxHost).first(record.DnsMxHostNum), arena, FillMxHost);
    message.n_dnsservers = record.DnsServerNum;
    message.dnsservers =
        NewMessages<DnsServerItem>(std::span(record.DnsServer).first(record.DnsServerNum), arena, FillServer);
    FillForwards(message, Pairs(record.DnsProxy).first(record.DnsProxyNum), arena);
    return Packed<dnsmasq_conf__get_packed_size, dnsmasq_conf__pack>(message);
}

std::vector<std::uint8_t> PackForPop(const VQ_DNSMASQ_CONF &record)
{
    std::vector<std::uint32_t> servers(record.DnsServerNum);
    std::ranges::transform(std::span(record.DnsServer).first(servers.size()), servers.begin(),
                           &VQ_DNS_SERVER_CONF::DnsServerIp);
    PopDnsmasqConf message = POP_DNSMASQ_CONF__INIT;
    message.enable = record.Enable != FALSE ? 1 : 0;
    message.n_dns = servers.size();
    message.dns = servers.data();
    message.localip = record.LocalIp;
    message.has_persistentflag = 1;
    message.persistentflag = record.PersistentFlag != FALSE ? 1 : 0;
    return Packed<pop_dnsmasq_conf__get_packed_size, pop_dnsmasq_conf__pack>(message);
}

} // namespace

std::vector<std::uint8_t> MessageOfRecord(Platform platform, const VQ_DNSMASQ_CONF &record)
{
    return platform == Platform::kCpe ? PackForCpe(record) : PackForPop(record);
}

} // namespace kavel::agent
