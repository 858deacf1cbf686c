#include "services_records.h"

#include <memory>

#include "base/zeroed_pages.h"
#include "instances/module.h"
#include "services.h"
#include "vqSafeStr.h"
#include "vqStore.h"

namespace kavel::bench {
namespace {

template <std::size_t Size>
void SetName(char (&field)[Size], const char *kind, unsigned number)
{
    VQ_SNPrintf(field, Size, "%s-%u.example.com", kind, number);
}

std::uint32_t Address(unsigned number, std::uint8_t octet)
{
    return 10U << 24U | (number & 0xFFFFU) << 8U | octet;
}

struct FreeText {
    void operator()(char *text) const { VQ_GetDbDataTransOp()->DataTransJsonStrFree(text); }
};

} // namespace

void FillRecord(std::uint32_t vpn, const Amounts &amounts, std::uint8_t octet, VQ_DNSMASQ_CONF &record)
{
    record.Enable = TRUE;
    record.PersistentFlag = TRUE;
    record.VpnId = vpn;
    record.DnsHostNum = amounts.hosts;
    record.DnsMxHostNum = amounts.mxHosts;
    record.DnsServerNum = amounts.servers;
    record.DnsProxyNum = amounts.forwards;
    for (unsigned i = 0; i < amounts.hosts; ++i) {
        record.DnsHost[i].Ip = Address(i, octet);
        SetName(record.DnsHost[i].Domain, "host", i);
    }
    for (unsigned i = 0; i < amounts.mxHosts; ++i) {
        SetName(record.DnsMxHost[i].TargetDomain, "mail", i);
        SetName(record.DnsMxHost[i].SourceDomain, "site", i);
        record.DnsMxHost[i].Preference = octet;
    }
    for (unsigned i = 0; i < amounts.servers; ++i) {
        record.DnsServer[i].DnsServerIp = Address(i, octet);
        VQ_SafeStrCopy(record.DnsServer[i].Ifname, sizeof record.DnsServer[i].Ifname, kLan);
    }
    for (unsigned i = 0; i < amounts.forwards; ++i) {
        record.DnsProxy[i].ServerIp = Address(i, octet);
        SetName(record.DnsProxy[i].Domain, "zone", i);
    }
}

std::string RecordText(std::uint32_t vpn, const Amounts &amounts, std::uint8_t octet)
{
    static const agent::Module module("", agent::Host::Current());
    const auto record = agent::MapZeroed<VQ_DNSMASQ_CONF>();
    FillRecord(vpn, amounts, octet, *record);
    const std::unique_ptr<char, FreeText> text(VQ_GetDbDataTransOp()->DnsmasqConfToStr(record.get()));
    Expect(text != nullptr, "converting a record to text failed");
    return text.get();
}

} // namespace kavel::bench
