#include "module_floors.h"

#include <cstring>
#include <memory>
#include <regex.h>

#include <json-c/json.h>

#include "module_host.h"
#include "vqFile.h"
#include "vqMemory.h"
#include "vqRoute.h"
#include "vqSafeStr.h"

namespace kavel::bench {

namespace {

struct FreeBlock {
    void operator()(void *block) const { VQ_AgentMemFree(block); }
};

template <typename T>
using HostBlock = std::unique_ptr<T, FreeBlock>;

constexpr std::size_t kServerFileSize = 1024;

template <typename FormatLine>
void WriteLines(char *buffer, std::size_t size, std::size_t count, FormatLine format)
{
    std::size_t length = 0;
    for (std::size_t i = 0; i < count; ++i) {
        length += format(i, buffer + length, size - length);
    }
    Expect(VQ_WriteSyncWithFilePath("", buffer, length) == 0, "writing a file failed");
}

template <typename FormatLine>
void WriteLargeFile(std::size_t count, std::size_t lineBudget, FormatLine format)
{
    const HostBlock<char> buffer(static_cast<char *>(VQ_AgentMemZeroAlloc(count * lineBudget)));
    WriteLines(buffer.get(), count * lineBudget, count, format);
}

template <typename FormatLine>
void WriteServerFile(std::size_t count, FormatLine format)
{
    char buffer[kServerFileSize] = {};
    WriteLines(buffer, sizeof(buffer), count, format);
}

void Add(json_object *parent, const char *key, json_object *value)
{
    json_object_object_add(parent, key, value);
}

void AddNumber(json_object *parent, const char *key, std::uint32_t value)
{
    Add(parent, key, json_object_new_int(static_cast<std::int32_t>(value)));
}

void AddText(json_object *parent, const char *key, const char *value)
{
    Add(parent, key, json_object_new_string(value));
}

template <typename FillItem>
void AddList(json_object *root, const char *key, std::size_t count, FillItem fill)
{
    json_object *array = json_object_new_array();
    Add(root, key, array);
    for (std::size_t i = 0; i < count; ++i) {
        json_object *item = json_object_new_object();
        json_object_array_add(array, item);
        fill(item, i);
    }
}

void AddHeader(json_object *root, const VQ_CTRL_DNSMASQ_CONF &conf)
{
    Add(root, "Enable", json_object_new_boolean(conf.Enable != FALSE));
    AddNumber(root, "VpnId", conf.VpnId);
    AddNumber(root, "Op", VQ_CTRL_DNSMASQ_OP_REBOOT);
    AddNumber(root, "DnsHostNum", conf.DnsHostNum);
    AddNumber(root, "DnsMxHostNum", conf.DnsMxHostNum);
    AddNumber(root, "DnsServerNum", conf.DnsServerNum);
    AddNumber(root, "DnsProxyNum", conf.DnsProxyNum);
}

void AddIp(json_object *parent, const char *key, const std::string &ready, std::uint32_t ip, Addresses addresses)
{
    if (addresses == Addresses::kAreTexts) {
        AddText(parent, key, ready.c_str());
        return;
    }
    char text[19] = {};
    static_cast<void>(
        VQ_SNPrintf(text, sizeof(text), "%u.%u.%u.%u", ip >> 24U, ip >> 16U & 255U, ip >> 8U & 255U, ip & 255U));
    AddText(parent, key, text);
}

void AddLists(json_object *root, const Content &content, Addresses addresses)
{
    const VQ_CTRL_DNSMASQ_CONF &conf = *content.record;
    AddList(root, "DnsHost", conf.DnsHostNum, [&](json_object *item, std::size_t i) {
        AddIp(item, "Ip", content.hostIps[i], conf.DnsHost[i].Ip, addresses);
        AddText(item, "Domain", conf.DnsHost[i].Domain);
    });
    AddList(root, "DnsMxHost", conf.DnsMxHostNum, [&](json_object *item, std::size_t i) {
        AddText(item, "TargetDomain", conf.DnsMxHost[i].TargetDomain);
        AddText(item, "SourceDomain", conf.DnsMxHost[i].SourceDomain);
        AddNumber(item, "Preference", conf.DnsMxHost[i].Preference);
    });
    AddList(root, "DnsServer", conf.DnsServerNum, [&](json_object *item, std::size_t i) {
        AddIp(item, "DnsServerIp", content.serverIps[i], conf.DnsServer[i].DnsServerIp, addresses);
        AddText(item, "Ifname", conf.DnsServer[i].Ifname);
    });
    AddList(root, "DnsProxy", conf.DnsProxyNum, [&](json_object *item, std::size_t i) {
        AddText(item, "Domain", conf.DnsProxy[i].Domain);
        AddIp(item, "ServerIp", content.proxyIps[i], conf.DnsProxy[i].ServerIp, addresses);
    });
}

const char *TextOf(json_object *item, const char *key)
{
    json_object *value = nullptr;
    json_object_object_get_ex(item, key, &value);
    return json_object_get_string(value);
}

template <std::size_t Size>
void ReadText(json_object *item, const char *key, char (&target)[Size])
{
    static_cast<void>(VQ_SafeStrCopy(target, Size, TextOf(item, key)));
}

void ReadIp(json_object *item, const char *key, std::uint32_t *ip)
{
    const char *text = TextOf(item, key);
    Expect(VQ_SafeStrGetIp4Addr(text, std::strlen(text), ip) != nullptr, "reading an address failed");
}

template <typename ReadItem>
void ReadList(json_object *root, const char *key, ReadItem read)
{
    json_object *array = nullptr;
    json_object_object_get_ex(root, key, &array);
    const std::size_t count = json_object_array_length(array);
    for (std::size_t i = 0; i < count; ++i) {
        read(json_object_array_get_idx(array, i), i);
    }
}

void ReadLists(json_object *root, VQ_CTRL_DNSMASQ_CONF &conf)
{
    ReadList(root, "DnsHost", [&](json_object *item, std::size_t i) {
        ReadIp(item, "Ip", &conf.DnsHost[i].Ip);
        ReadText(item, "Domain", conf.DnsHost[i].Domain);
    });
    ReadList(root, "DnsMxHost", [&](json_object *item, std::size_t i) {
        json_object *preference = nullptr;
        ReadText(item, "TargetDomain", conf.DnsMxHost[i].TargetDomain);
        ReadText(item, "SourceDomain", conf.DnsMxHost[i].SourceDomain);
        json_object_object_get_ex(item, "Preference", &preference);
        conf.DnsMxHost[i].Preference = static_cast<std::uint32_t>(json_object_get_int(preference));
    });
    ReadList(root, "DnsServer", [&](json_object *item, std::size_t i) {
        ReadIp(item, "DnsServerIp", &conf.DnsServer[i].DnsServerIp);
        ReadText(item, "Ifname", conf.DnsServer[i].Ifname);
    });
    ReadList(root, "DnsProxy", [&](json_object *item, std::size_t i) {
        ReadIp(item, "ServerIp", &conf.DnsProxy[i].ServerIp);
        ReadText(item, "Domain", conf.DnsProxy[i].Domain);
    });
}

// Like the module: delete the old row, then add the new one.
void StoreDocument(const Content &content)
{
    const auto row = static_cast<BOOL>(kVpnId);
    std::string text;
    PrintDocument(content, Addresses::kAreTexts, &text);
    static_cast<void>(VQ_SqliteDnsMasqConfOp(row, nullptr, VQ_SQL_CONF_OP_DEL, VQ_SQL_CONF_CPE_DNSMASQ));
    Expect(VQ_SqliteDnsMasqConfOp(row, text.data(), VQ_SQL_CONF_OP_ADD, VQ_SQL_CONF_CPE_DNSMASQ) >= 0,
           "storing a record failed");
}

} // namespace

void MatchNames(std::span<const std::string> names)
{
    for (const std::string &each : names) {
        regex_t pattern = {};
        Expect(regcomp(&pattern, "^[a-zA-Z0-9]{1,63}([\\.\\-][a-zA-Z0-9]{1,63})*\\.[a-zA-Z]{2,63}$", REG_EXTENDED) == 0,
               "the pattern does not compile");
        Expect(regexec(&pattern, each.c_str(), 0, nullptr, 0) == 0, "a name does not match");
        regfree(&pattern);
    }
}

void CopyServers(const Content &content, VQ_CTRL_DNSMASQ_CONF *target)
{
    for (std::size_t i = 0; i < content.record->DnsServerNum; ++i) {
        VQ_CTRL_DNS_SERVER_CONF &server = target->DnsServer[i];
        static_cast<void>(VQ_SafeStrCopy(server.Ifname, sizeof(server.Ifname), content.record->DnsServer[i].Ifname));
    }
}

void WriteHostLines(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    WriteLargeFile(conf.DnsHostNum, 1024, [&](std::size_t i, char *target, std::size_t size) {
        const VQ_CTRL_DNS_HOST_CONF &host = conf.DnsHost[i];
        return VQ_SNPrintf(target, size, "%u.%u.%u.%u %s\n", host.Ip >> 24U, host.Ip >> 16U & 255U,
                           host.Ip >> 8U & 255U, host.Ip & 255U, host.Domain);
    });
}

void WriteMxLines(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    WriteLargeFile(conf.DnsMxHostNum, 1024, [&](std::size_t i, char *target, std::size_t size) {
        const VQ_CTRL_DNS_MX_HOST_CONF &mx = conf.DnsMxHost[i];
        return VQ_SNPrintf(target, size, "mx-host=%s,%s,%u\n", mx.SourceDomain, mx.TargetDomain, mx.Preference);
    });
}

void WriteServerLines(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    WriteServerFile(conf.DnsServerNum, [&](std::size_t i, char *target, std::size_t size) {
        const std::uint32_t ip = conf.DnsServer[i].DnsServerIp;
        return VQ_SNPrintf(target, size, "server=%u.%u.%u.%u@%s\n", ip >> 24U, ip >> 16U & 255U, ip >> 8U & 255U,
                           ip & 255U, conf.DnsServer[i].Ifname);
    });
}

void WriteResolvLines(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    WriteServerFile(conf.DnsServerNum, [&](std::size_t i, char *target, std::size_t size) {
        const std::uint32_t ip = conf.DnsServer[i].DnsServerIp;
        return VQ_SNPrintf(target, size, "nameserver %u.%u.%u.%u\n", ip >> 24U, ip >> 16U & 255U, ip >> 8U & 255U,
                           ip & 255U);
    });
}

void WriteProxyLines(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    WriteLargeFile(conf.DnsProxyNum, 288, [&](std::size_t i, char *target, std::size_t size) {
        const VQ_CTRL_DNS_PROXY_CONF &proxy = conf.DnsProxy[i];
        return VQ_SNPrintf(target, size, "server=/%s/%u.%u.%u.%u\n", proxy.Domain, proxy.ServerIp >> 24U,
                           proxy.ServerIp >> 16U & 255U, proxy.ServerIp >> 8U & 255U, proxy.ServerIp & 255U);
    });
}

void PrintDocument(const Content &content, Addresses addresses, std::string *printed)
{
    json_object *root = json_object_new_object();
    AddHeader(root, *content.record);
    AddLists(root, content, addresses);
    AddText(root, "LocalIp", "0.0.0.0");
    const char *text = json_object_to_json_string(root);
    Expect(text != nullptr, "printing the document failed");
    if (printed != nullptr) {
        *printed = text;
    }
    json_object_put(root);
}

void ParseDocument(const std::string &text)
{
    json_object *root = json_tokener_parse(text.c_str());
    Expect(root != nullptr, "parsing the document failed");
    json_object_put(root);
}

void ReadDocument(const std::string &text, VQ_CTRL_DNSMASQ_CONF *target)
{
    json_object *root = json_tokener_parse(text.c_str());
    Expect(root != nullptr, "parsing the document failed");
    ReadLists(root, *target);
    json_object_put(root);
}

void ClearRecord()
{
    const HostBlock<VQ_CTRL_DNSMASQ_CONF> record(
        static_cast<VQ_CTRL_DNSMASQ_CONF *>(VQ_AgentMemAlloc(sizeof(VQ_CTRL_DNSMASQ_CONF))));
    Expect(record != nullptr, "no memory for a record");
    std::memset(record.get(), 0, sizeof(VQ_CTRL_DNSMASQ_CONF));
}

void AddRoutes(const VQ_CTRL_DNSMASQ_CONF &conf)
{
    VQ_RTC_ROUTE_CONF route = {};
    for (std::size_t i = 0; i < conf.DnsServerNum; ++i) {
        route.TargetIp.Ip = conf.DnsServer[i].DnsServerIp;
        Expect(VQ_RTCRouteAdd(kVpnId, &route) == 0, "adding a route failed");
    }
    for (std::size_t i = 0; i < conf.DnsProxyNum; ++i) {
        route.TargetIp.Ip = conf.DnsProxy[i].ServerIp;
        Expect(VQ_RTCRouteAdd(kVpnId, &route) == 0, "adding a route failed");
    }
}

void DoMessageParts(const Content &content)
{
    ClearRecord();
    MatchNames(content.names);
    WriteHostLines(*content.record);
    WriteMxLines(*content.record);
    WriteServerLines(*content.record);
    WriteResolvLines(*content.record);
    WriteProxyLines(*content.record);
    AddRoutes(*content.record);
    if (content.record->PersistentFlag != FALSE) {
        StoreDocument(content);
    }
}

} // namespace kavel::bench
