#include "module_cases.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "module_floors.h"
#include "module_host.h"
#include "vqMemory.h"

namespace kavel::bench {

namespace {

constexpr const char *kMatching = "compile, match and free the same names";
constexpr const char *kLines = "the same lines, each formatted once into one zeroed buffer";
constexpr const char *kPrinting = "json-c building, printing and freeing the same document";
constexpr const char *kParsing = "json-c parsing and freeing the same document";
constexpr const char *kBoth = "json-c building, printing, parsing and freeing the same document";
constexpr const char *kParts = "the floors of its parts in sequence, and a zeroed record";

// 1, 10, 100, ... well below the capacity, and the capacity.
std::vector<std::size_t> SizesUpTo(std::size_t capacity)
{
    std::vector<std::size_t> sizes;
    for (std::size_t n = 1; 2 * n <= capacity; n *= 10) {
        sizes.push_back(n);
    }
    sizes.push_back(capacity);
    return sizes;
}

std::size_t EntriesOf(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    return std::size_t{conf.DnsHostNum} + conf.DnsMxHostNum + conf.DnsServerNum + conf.DnsProxyNum;
}

void Translate(const Content &content, VQ_CTRL_DNSMASQ_CONF *target)
{
    Expect(VQCtrl_PbToAdvancedDnsConfPlatformCPE(&content.carrier, target) == 0, "translating the message failed");
}

void PrintRecord(const Content &content, std::string *printed)
{
    char *text = VQCtrl_AdvancedDnsConfToJsonStr(content.record.get());
    Expect(text != nullptr, "converting the record to text failed");
    if (printed != nullptr) {
        *printed = text;
    }
    VQ_AgentMemFree(text);
}

void ReadRecord(const Content &content, VQ_CTRL_DNSMASQ_CONF *target)
{
    Expect(VQCtrl_AdvancedDnsJsonStrToConf(target, content.text.c_str()) == 0,
           "converting the text to a record failed");
}

void Configure(const Content &content)
{
    Expect(VQCtrl_ConfigAdvancedDns(&content.carrier) >= 0, "applying the message failed");
}

std::string WrittenBy(const std::function<void()> &work)
{
    std::string written;
    CaptureWrites(&written);
    work();
    CaptureWrites(nullptr);
    return written;
}

void RequireSame(const std::string &work, const std::string &ours, const std::string &floor)
{
    if (ours != floor || ours.empty()) {
        throw std::runtime_error(work + ": the floor does not do the same work");
    }
}

} // namespace

Cases::Cases()
{
    AddTranslations();
    AddFiles();
    AddDocuments();
    AddMessages();
}

const Content &Cases::ContentOf(const Amount &amount)
{
    return contents_.try_emplace(amount, amount).first->second;
}

void Cases::AddTranslation(std::deque<Case> &cases, const std::string &name, std::size_t n, const Amount &amount,
                           std::optional<double> target)
{
    const Content &content = ContentOf(amount);
    cases.push_back({name, n, kMatching, target, [&content, this] { Translate(content, target_.get()); },
                     [&content] { MatchNames(content.names); }});
}

void Cases::AddTranslations()
{
    const std::size_t names = kFullAmount.hosts + 2 * kFullAmount.mxs + kFullAmount.proxyDomains;
    AddTranslation(full, "translation", names, kFullAmount, 1.05);
    for (const std::size_t n : SizesUpTo(kFullAmount.hosts)) {
        AddTranslation(growing, "translation of hosts", n, {.hosts = n}, std::nullopt);
    }
    for (const std::size_t n : SizesUpTo(kFullAmount.mxs)) {
        AddTranslation(growing, "translation of MX", n, {.mxs = n}, std::nullopt);
    }
    for (const std::size_t n : SizesUpTo(kFullAmount.proxyDomains)) {
        AddTranslation(growing, "translation of proxy domains", n, {.proxyDomains = n}, std::nullopt);
    }
    // The translation compares each server with the previous ones, at most seven.
    for (std::size_t n = 1; n <= kFullAmount.servers; n *= 2) {
        const Content &content = ContentOf({.servers = n});
        growing.push_back({"translation of servers", n, "their interface names copied", std::nullopt,
                           [&content, this] { Translate(content, target_.get()); },
                           [&content, this] { CopyServers(content, target_.get()); }});
    }
}

void Cases::AddFile(const std::string &name, std::size_t capacity, VQ_ERR_T (*ours)(const VQ_CTRL_DNSMASQ_CONF *),
                    void (*floor)(const VQ_CTRL_DNSMASQ_CONF &))
{
    for (const std::size_t n : SizesUpTo(capacity)) {
        const VQ_CTRL_DNSMASQ_CONF *conf = records_.emplace_back(RecordOf(n)).get();
        const Case work{
            name + " by size",    n, kLines, std::nullopt, [=] { Expect(ours(conf) >= 0, "writing a file failed"); },
            [=] { floor(*conf); }};
        RequireSame(name, WrittenBy(work.ours), WrittenBy(work.floor));
        growing.push_back(work);
    }
    full.push_back(growing.back());
    full.back().name = name;
}

void Cases::AddFiles()
{
    AddFile("hosts file", VQ_DNS_HOST_MAX, VQCtrl_SetDnsHostConf, WriteHostLines);
    AddFile("MX file", VQ_DNS_MX_HOST_MAX, VQCtrl_SetDnsMxHostConf, WriteMxLines);
    AddFile("server file", VQ_DNS_SERVER_MAX, VQCtrl_SetDnsServerConf, WriteServerLines);
    AddFile("resolver file", VQ_DNS_SERVER_MAX, VQCtrl_SetDnsResolveConf, WriteResolvLines);
    AddFile("proxy file", VQ_DNS_PROXY_MAX - 1, VQCtrl_SetDnsProxyConf, WriteProxyLines);
}

void Cases::AddDocument(std::deque<Case> &cases, const Amount &amount, std::optional<double> target)
{
    const Content &content = ContentOf(amount);
    std::string ours;
    std::string floor;
    PrintRecord(content, &ours);
    PrintDocument(content, Addresses::kAreTexts, &floor);
    RequireSame("record to text", ours, floor);

    const std::string suffix = &cases == &full ? "" : " by size";
    const std::size_t n = EntriesOf(*content.record);
    cases.push_back({"record to text" + suffix, n, kPrinting, target, [&content] { PrintRecord(content, nullptr); },
                     [&content] { PrintDocument(content, Addresses::kAreTexts, nullptr); }});
    cases.push_back({"text to record" + suffix, n, kParsing, target,
                     [&content, this] { ReadRecord(content, target_.get()); },
                     [&content] { ParseDocument(content.text); }});
    cases.push_back({"record to text and back" + suffix, n, kBoth, target,
                     [&content, this] {
                         PrintRecord(content, nullptr);
                         ReadRecord(content, target_.get());
                     },
                     [&content] {
                         PrintDocument(content, Addresses::kAreTexts, nullptr);
                         ParseDocument(content.text);
                     }});
}

void Cases::AddDocuments()
{
    AddDocument(full, kFullAmount, 1.15);
    // Floors that include the host's services: addresses are formatted, members are looked up.
    const Content &content = ContentOf(kFullAmount);
    const std::size_t n = EntriesOf(*content.record);
    full.push_back({"record to text, addresses formatted", n,
                    "json-c building, printing and freeing, each address formatted by the host", std::nullopt,
                    [&content] { PrintRecord(content, nullptr); },
                    [&content] { PrintDocument(content, Addresses::kAreFormatted, nullptr); }});
    full.push_back({"text to record, members looked up", n,
                    "json-c parsing, looking up and freeing, each text copied and each address read by the host",
                    std::nullopt, [&content, this] { ReadRecord(content, target_.get()); },
                    [&content, this] { ReadDocument(content.text, target_.get()); }});
    for (const std::size_t domains : SizesUpTo(kFullAmount.proxyDomains)) {
        AddDocument(growing, {.proxyDomains = domains}, std::nullopt);
    }
}

void Cases::AddMessage(std::deque<Case> &cases, const std::string &name, std::size_t n, const Amount &amount,
                       std::optional<double> target)
{
    const Content &content = ContentOf(amount);
    cases.push_back(
        {name, n, kParts, target, [&content] { Configure(content); }, [&content] { DoMessageParts(content); }});
}

void Cases::AddMessages()
{
    const Content &some = ContentOf({.hosts = 2, .mxs = 2, .servers = 2, .proxyDomains = 2});
    RequireSame("message", WrittenBy([&some] { Configure(some); }), WrittenBy([&some] { DoMessageParts(some); }));
    const std::size_t entries = EntriesOf(*ContentOf(kFullAmount).record);
    Amount stored = kFullAmount;
    stored.stored = true;
    AddMessage(full, "full message", entries, kFullAmount, 1.10);
    AddMessage(full, "full message, stored", entries, stored, 1.10);
    const Content &smallest = ContentOf({});
    full.push_back({"smallest message", 0, "a record allocated, zeroed and freed", std::nullopt,
                    [&smallest] { Configure(smallest); }, ClearRecord});
    for (const std::size_t n : SizesUpTo(kFullAmount.proxyDomains)) {
        AddMessage(growing, "message by size", n, {.proxyDomains = n}, std::nullopt);
    }
}

} // namespace kavel::bench
