// The input of the measured work: a message of a given size, its record, and the texts of both.
#ifndef BENCH_MODULE_CONTENT_H
#define BENCH_MODULE_CONTENT_H

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cpeMessage.h"
#include "expect.h"
#include "module_host.h"
#include "vqCtrlAdvancedDns.h"

namespace kavel::bench {

struct Amount {
    std::size_t hosts = 0;
    std::size_t mxs = 0;
    std::size_t servers = 0;
    std::size_t proxyDomains = 0;
    std::size_t serversPerDomain = 1;
    bool stored = false;

    auto operator<=>(const Amount &other) const = default;
};

// The largest message in which every list takes effect. The last item has one server less, because the module treats a
// full table as an empty one.
inline constexpr Amount kFullAmount{
    .hosts = 1024, .mxs = 128, .servers = 8, .proxyDomains = 8192, .serversPerDomain = 8};

struct FreeRecord {
    void operator()(VQ_CTRL_DNSMASQ_CONF *record) const { std::free(record); }
};

using RecordOwner = std::unique_ptr<VQ_CTRL_DNSMASQ_CONF, FreeRecord>;

class Content {
  public:
    explicit Content(const Amount &amount);

    CpeMessage message{kVpnId, true, VQ_CTRL_DNSMASQ_OP_RELOAD};
    VQ_CTRL_DNSMASQ_CONFIG_PB carrier{};
    RecordOwner record;             // the message, translated
    std::vector<std::string> names; // every name that the translation has to check
    std::vector<std::string> hostIps;
    std::vector<std::string> serverIps;
    std::vector<std::string> proxyIps;
    std::string text; // the record's stored form

  private:
    void FillMessage(const Amount &amount);
    void FillProxies(const Amount &amount);
    void FillTexts();
};

// A record with `count` entries in each list, or as many as fit. For sizes that no message can have.
RecordOwner RecordOf(std::size_t count);

} // namespace kavel::bench

#endif
