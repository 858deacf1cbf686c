#include "module_works.h"

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
constexpr const char *kParts = "the floors of its parts one after another, and a zeroed record";

// 1, 10, 100, ... well below the capacity, and the capacity.
std::vector<std::size_t> sizesUpTo(std::size_t capacity)
{
    std::vector<std::size_t> sizes;
    for (std::size_t n = 1; 2 * n <= capacity; n *= 10) {
        sizes.push_back(n);
    }
    sizes.push_back(capacity);
    return sizes;
}

std::size_t entriesOf(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    return std::size_t{conf.DnsHostNum} + conf.DnsMxHostNum + conf.DnsServerNum + conf.DnsProxyNum;
}

void translate(const Content &content, VQ_CTRL_DNSMASQ_CONF *target)
{
    require(VQCtrl_PbToAdvancedDnsConfPlatformCPE(&content.carrier, target) == 0, "the message is not taken");
}

void printRecord(const Content &content, std::string *printed)
{
    char *text = VQCtrl_AdvancedDnsConfToJsonStr(content.record.get());
    require(text != nullptr, "the record has no stored form");
    if (printed != nullptr) {
        *printed = text;
    }
    VQ_AgentMemFree(text);
}

void readRecord(const Content &content, VQ_CTRL_DNSMASQ_CONF *target)
{
    require(VQCtrl_AdvancedDnsJsonStrToConf(target, content.text.c_str()) == 0, "the text is not read");
}

void configure(const Content &content)
{
    require(VQCtrl_ConfigAdvancedDns(&content.carrier) >= 0, "the message is not carried out");
}

std::string writtenBy(const std::function<void()> &work)
{
    std::string written;
    keepWritten(&written);
    work();
    keepWritten(nullptr);
    return written;
}

void requireSame(const std::string &work, const std::string &ours, const std::string &floor)
{
    if (ours != floor || ours.empty()) {
        throw std::runtime_error(work + ": the floor does not do the same work");
    }
}

} // namespace

Works::Works()
{
    addTranslations();
    addFiles();
    addDocuments();
    addMessages();
}

const Content &Works::contentOf(const Amount &amount)
{
    return m_contents.try_emplace(amount, amount).first->second;
}

void Works::addTranslation(std::deque<Work> &works, const std::string &name, std::size_t n, const Amount &amount,
                           std::optional<double> target)
{
    const Content &content = contentOf(amount);
    works.push_back({name, n, kMatching, target, [&content, this] { translate(content, m_target.get()); },
                     [&content] { matchNames(content.names); }});
}

void Works::addTranslations()
{
    const std::size_t names = kFullAmount.hosts + 2 * kFullAmount.mxs + kFullAmount.proxyDomains;
    addTranslation(full, "translation", names, kFullAmount, 1.05);
    for (const std::size_t n : sizesUpTo(kFullAmount.hosts)) {
        addTranslation(growing, "translation of hosts", n, {.hosts = n}, std::nullopt);
    }
    for (const std::size_t n : sizesUpTo(kFullAmount.mxs)) {
        addTranslation(growing, "translation of MX", n, {.mxs = n}, std::nullopt);
    }
    for (const std::size_t n : sizesUpTo(kFullAmount.proxyDomains)) {
        addTranslation(growing, "translation of proxy domains", n, {.proxyDomains = n}, std::nullopt);
    }
    // Each is compared with those before it, of which there are seven at most.
    for (std::size_t n = 1; n <= kFullAmount.servers; n *= 2) {
        const Content &content = contentOf({.servers = n});
        growing.push_back({"translation of servers", n, "their interface names copied", std::nullopt,
                           [&content, this] { translate(content, m_target.get()); },
                           [&content, this] { copyServers(content, m_target.get()); }});
    }
}

void Works::addFile(const std::string &name, std::size_t capacity, VQ_ERR_T (*ours)(const VQ_CTRL_DNSMASQ_CONF *),
                    void (*floor)(const VQ_CTRL_DNSMASQ_CONF &))
{
    for (const std::size_t n : sizesUpTo(capacity)) {
        const VQ_CTRL_DNSMASQ_CONF *conf = m_records.emplace_back(recordOf(n)).get();
        const Work work{
            name + " by size",    n, kLines, std::nullopt, [=] { require(ours(conf) >= 0, "a file is not written"); },
            [=] { floor(*conf); }};
        requireSame(name, writtenBy(work.ours), writtenBy(work.floor));
        growing.push_back(work);
    }
    full.push_back(growing.back());
    full.back().name = name;
}

void Works::addFiles()
{
    addFile("hosts file", VQ_DNS_HOST_MAX, VQCtrl_SetDnsHostConf, writeHostLines);
    addFile("MX file", VQ_DNS_MX_HOST_MAX, VQCtrl_SetDnsMxHostConf, writeMxLines);
    addFile("server file", VQ_DNS_SERVER_MAX, VQCtrl_SetDnsServerConf, writeServerLines);
    addFile("resolver file", VQ_DNS_SERVER_MAX, VQCtrl_SetDnsResolveConf, writeResolvLines);
    addFile("proxy file", VQ_DNS_PROXY_MAX - 1, VQCtrl_SetDnsProxyConf, writeProxyLines);
}

void Works::addDocument(std::deque<Work> &works, const Amount &amount, std::optional<double> target)
{
    const Content &content = contentOf(amount);
    std::string ours;
    std::string floor;
    printRecord(content, &ours);
    printDocument(content, Addresses::AreTexts, &floor);
    requireSame("record to text", ours, floor);

    const std::string suffix = &works == &full ? "" : " by size";
    const std::size_t n = entriesOf(*content.record);
    works.push_back({"record to text" + suffix, n, kPrinting, target, [&content] { printRecord(content, nullptr); },
                     [&content] { printDocument(content, Addresses::AreTexts, nullptr); }});
    works.push_back({"text to record" + suffix, n, kParsing, target,
                     [&content, this] { readRecord(content, m_target.get()); },
                     [&content] { parseDocument(content.text); }});
    works.push_back({"record to text and back" + suffix, n, kBoth, target,
                     [&content, this] {
                         printRecord(content, nullptr);
                         readRecord(content, m_target.get());
                     },
                     [&content] {
                         printDocument(content, Addresses::AreTexts, nullptr);
                         parseDocument(content.text);
                     }});
}

void Works::addDocuments()
{
    addDocument(full, kFullAmount, 1.15);
    // What of the difference lies in the rules: numbers that become texts, and members that have to be found.
    const Content &content = contentOf(kFullAmount);
    const std::size_t n = entriesOf(*content.record);
    full.push_back({"record to text, beside formatting too", n,
                    "json-c building, printing and freeing, each address formatted by the host", std::nullopt,
                    [&content] { printRecord(content, nullptr); },
                    [&content] { printDocument(content, Addresses::AreFormatted, nullptr); }});
    full.push_back({"text to record, beside looking up too", n,
                    "json-c parsing, looking up and freeing, each text copied and each address read by the host",
                    std::nullopt, [&content, this] { readRecord(content, m_target.get()); },
                    [&content, this] { takeDocument(content.text, m_target.get()); }});
    for (const std::size_t domains : sizesUpTo(kFullAmount.proxyDomains)) {
        addDocument(growing, {.proxyDomains = domains}, std::nullopt);
    }
}

void Works::addMessage(std::deque<Work> &works, const std::string &name, std::size_t n, const Amount &amount,
                       std::optional<double> target)
{
    const Content &content = contentOf(amount);
    works.push_back(
        {name, n, kParts, target, [&content] { configure(content); }, [&content] { carryMessage(content); }});
}

void Works::addMessages()
{
    const Content &some = contentOf({.hosts = 2, .mxs = 2, .servers = 2, .proxyDomains = 2});
    requireSame("message", writtenBy([&some] { configure(some); }), writtenBy([&some] { carryMessage(some); }));
    const std::size_t entries = entriesOf(*contentOf(kFullAmount).record);
    Amount stored = kFullAmount;
    stored.stored = true;
    addMessage(full, "full message", entries, kFullAmount, 1.10);
    addMessage(full, "full message, stored", entries, stored, 1.10);
    const Content &smallest = contentOf({});
    full.push_back({"smallest message", 0, "a record taken, zeroed and given back", std::nullopt,
                    [&smallest] { configure(smallest); }, clearRecord});
    for (const std::size_t n : sizesUpTo(kFullAmount.proxyDomains)) {
        addMessage(growing, "message by size", n, {.proxyDomains = n}, std::nullopt);
    }
}

} // namespace kavel::bench
