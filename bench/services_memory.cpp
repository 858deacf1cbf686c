// Measures the memory of a list of stored records. The floors are the memory of the same data in other forms.
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "base/zeroed_pages.h"
#include "services.h"
#include "services_records.h"
#include "vqStore.h"

namespace kavel::bench {
namespace {

constexpr std::uint64_t kKilo = 1024;

std::uint64_t KilobytesIn(const char *file, const std::string &key)
{
    std::ifstream words(file);
    for (std::string word; words >> word;) {
        std::uint64_t number = 0;
        if (word == key && words >> number) {
            return number;
        }
    }
    throw std::runtime_error(std::string(file) + ": no field " + key);
}

// Bytes of this process: anonymous memory and page tables.
std::uint64_t MemoryInUse()
{
    return (KilobytesIn("/proc/self/smaps_rollup", "Anonymous:") + KilobytesIn("/proc/self/status", "VmPTE:")) * kKilo;
}

// The bytes that the result of `make` occupies.
template <typename Make>
double MemoryOf(Make &&make)
{
    const std::uint64_t before = MemoryInUse();
    const auto made = make();
    return static_cast<double>(MemoryInUse()) - static_cast<double>(before);
}

void StoreRecords()
{
    for (std::uint32_t vpn = 1; vpn <= kLastVpn; ++vpn) {
        std::string text = RecordText(vpn, kOrdinary, 1);
        const VQ_ERR_T result =
            VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(vpn), text.data(), VQ_SQL_CONF_OP_ADD, VQ_SQL_CONF_CPE_DNSMASQ);
        Expect(result == 0, "storing a record failed");
    }
}

struct ReleaseList {
    void operator()(VQ_PersistentConfList *list) const { VQ_SqliteConfListRelease(list); }
};

auto StoredList()
{
    std::unique_ptr<VQ_PersistentConfList, ReleaseList> list(VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_CPE_DNSMASQ));
    Expect(list != nullptr && list->Count == static_cast<std::int32_t>(kLastVpn), "the list is incomplete");
    return list;
}

// The least memory for records of this form: only the pages that hold data.
auto RecordsInPages()
{
    std::vector<agent::ZeroedPages<VQ_DnsmasqConfNode>> records;
    for (std::uint32_t vpn = 1; vpn <= kLastVpn; ++vpn) {
        records.push_back(agent::MapZeroed<VQ_DnsmasqConfNode>());
        FillRecord(vpn, kOrdinary, 1, records.back()->Dnsmasq);
    }
    return records;
}

// Only their text.
auto RecordsAsText()
{
    std::vector<std::string> texts;
    for (std::uint32_t vpn = 1; vpn <= kLastVpn; ++vpn) {
        texts.push_back(RecordText(vpn, kOrdinary, 1));
    }
    return texts;
}

template <typename Floor>
Comparison CompareWith(const Setting &setting, const std::string &name, Floor &&floor)
{
    Comparison comparison{"memory of a list of stored records", kLastVpn, "bytes", name, std::nullopt, {}, {}};
    // Warm-up: memory that the allocator and the database allocate once and keep must not count.
    (void)MemoryOf(StoredList);
    (void)MemoryOf(floor);
    for (std::size_t pair = 0; pair < setting.pairs; ++pair) {
        comparison.ours.push_back(MemoryOf(StoredList));
        comparison.floor.push_back(MemoryOf(floor));
    }
    return comparison;
}

} // namespace

std::vector<Comparison> CompareMemory(const Setting &setting)
{
    StoreRecords();
    return {CompareWith(setting, "only the pages that hold data", RecordsInPages),
            CompareWith(setting, "the stored text", RecordsAsText)};
}

} // namespace kavel::bench
