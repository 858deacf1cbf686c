// Replaces names and addresses in texts. The same name or address gets the same token everywhere, so that a problem can
// still be followed: nas.corp.example becomes host-2.host-1.redacted wherever it stands, if corp.example is known and
// is host-1.redacted.
#ifndef KAVEL_CTL_BUNDLE_REDACTOR_H
#define KAVEL_CTL_BUNDLE_REDACTOR_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace kavel::ctl {

class Redactor {
  public:
    // A name that is replaced wherever it stands, in any case of its letters. Every domain name is replaced without
    // this, unless it looks like a file or a unit ("agent.json"). Not learned: numbers, single letters, "localhost",
    // and the constants of JSON.
    void Learn(std::string_view name);
    // The names in a hosts file; in a file of options of dnsmasq; in a record or message in JSON.
    void LearnHosts(std::string_view text);
    void LearnOptions(std::string_view text);
    void LearnJson(std::string_view text);

    // `text` with tokens in the place of domain names ("host-1.redacted"), of IPv4 and IPv6 addresses ("ip-1", without
    // a prefix length) and of MAC addresses ("mac-1"). Loopback and unspecified addresses stay.
    [[nodiscard]] std::string Redact(std::string_view text);

  private:
    [[nodiscard]] std::string RedactRun(std::string_view run);
    [[nodiscard]] std::string RedactWords(std::string_view words);
    [[nodiscard]] std::string RedactWord(std::string_view word);
    [[nodiscard]] std::optional<std::string> WordToken(std::string_view word);
    [[nodiscard]] std::optional<std::string> AddressToken(std::string_view word);
    [[nodiscard]] std::string NameToken(const std::string &name);

    std::set<std::string> known_; // in lower case
    std::map<std::string, std::string> names_;
    std::map<std::string, std::string> addresses_; // by their canonical text
    std::map<std::string, std::string> macs_;
};

} // namespace kavel::ctl

#endif
