#include "message_changes.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <tuple>
#include <utility>

#include "json_output.h"
#include "message_fields.h"
#include "operation.h"
#include "output.h"

namespace kavel::ctl {

namespace {

// In the order of the output.
enum class Topic : std::uint8_t { kEnable, kPersistent, kLocalIp, kHost, kMx, kServer, kForward };

// Something that a message says.
struct Fact {
    Topic topic{};
    std::string name; // what it is about
    std::string value;
    bool isReadAtStart = false;

    [[nodiscard]] auto Key() const { return std::tie(topic, name, value); }
};

struct Content {
    bool enables = false;
    std::optional<std::uint32_t> operation;
    std::vector<Fact> facts; // sorted, each once
};

const char *FieldName(Topic topic)
{
    switch (topic) {
    case Topic::kEnable:
        return "enable";
    case Topic::kPersistent:
        return "persistentflag";
    case Topic::kLocalIp:
        return "localip";
    case Topic::kHost:
        return "host";
    case Topic::kMx:
        return "mx";
    case Topic::kServer:
        return "server";
    case Topic::kForward:
        return "forward";
    }
    return "";
}

std::string BoolText(bool value)
{
    return value ? "true" : "false";
}

std::string TextOrNone(const char *text)
{
    return text != nullptr ? text : "";
}

void AddForwards(std::vector<Fact> &facts, const DnsProxyItemV2 &item)
{
    for (const char *domain : std::span(item.domains, item.n_domains)) {
        for (const std::uint32_t server : std::span(item.serverips, item.n_serverips)) {
            if (server != 0) {
                facts.push_back({Topic::kForward, TextOrNone(domain), Ipv4Text(server), true});
            }
        }
    }
}

Content Sorted(Content content)
{
    std::vector<Fact> &facts = content.facts;
    std::ranges::sort(facts, {}, &Fact::Key);
    const auto isRepeated = [](const Fact &one, const Fact &other) { return one.Key() == other.Key(); };
    facts.erase(std::unique(facts.begin(), facts.end(), isRepeated), facts.end());
    return content;
}

Content ContentOf(const DnsmasqConf &conf)
{
    Content content{.enables = conf.enable != 0, .operation = conf.operation, .facts = {}};
    std::vector<Fact> &facts = content.facts;
    facts.push_back({Topic::kEnable, "", BoolText(content.enables)});
    facts.push_back({Topic::kPersistent, "", BoolText(conf.has_persistentflag != 0 && conf.persistentflag != 0)});
    for (const DnsHostItem *host : std::span(conf.dnshosts, conf.n_dnshosts)) {
        facts.push_back({Topic::kHost, TextOrNone(host->domain), Ipv4Text(host->ip)});
    }
    for (const DnsMxHostItem *mx : std::span(conf.dnsmxhost, conf.n_dnsmxhost)) {
        facts.push_back({Topic::kMx, TextOrNone(mx->sourcedomain),
                         TextOrNone(mx->targetdomain) + " " + std::to_string(mx->preference), true});
    }
    for (const DnsServerItem *server : std::span(conf.dnsservers, conf.n_dnsservers)) {
        const std::string interface = TextOrNone(server->ifname);
        facts.push_back({Topic::kServer, Ipv4Text(server->dnsserver), interface, !interface.empty()});
    }
    for (const DnsProxyItemV2 *item : std::span(conf.dnsproxies, conf.n_dnsproxies)) {
        AddForwards(facts, *item);
    }
    return Sorted(std::move(content));
}

// A POP's message always starts the instance.
Content ContentOf(const PopDnsmasqConf &conf)
{
    Content content{.enables = conf.enable != 0, .operation = std::nullopt, .facts = {}};
    std::vector<Fact> &facts = content.facts;
    facts.push_back({Topic::kEnable, "", BoolText(content.enables)});
    facts.push_back({Topic::kPersistent, "", BoolText(conf.has_persistentflag != 0 && conf.persistentflag != 0)});
    facts.push_back({Topic::kLocalIp, "", Ipv4Text(conf.localip)});
    for (const std::uint32_t server : std::span(conf.dns, conf.n_dns)) {
        facts.push_back({Topic::kServer, Ipv4Text(server), ""});
    }
    return Sorted(std::move(content));
}

Content ContentOf(const PackedConf &packed)
{
    return packed.isForPop ? ContentOf(*UnpackPop(packed)) : ContentOf(*UnpackCpe(packed));
}

Change ChangeOf(const Fact &fact, bool isAdded)
{
    const std::string gap = fact.name.empty() || fact.value.empty() ? "" : " ";
    return {isAdded, FieldName(fact.topic), fact.name + gap + fact.value, fact.isReadAtStart};
}

// Both are sorted. What was there for a name stands before what is there now.
std::vector<Change> ChangesBetween(const std::vector<Fact> &before, const std::vector<Fact> &after)
{
    std::vector<Fact> removed;
    std::vector<Fact> added;
    std::ranges::set_difference(before, after, std::back_inserter(removed), {}, &Fact::Key, &Fact::Key);
    std::ranges::set_difference(after, before, std::back_inserter(added), {}, &Fact::Key, &Fact::Key);
    std::vector<Change> changes;
    auto add = added.begin();
    for (const Fact &fact : removed) {
        for (; add != added.end() && std::tie(add->topic, add->name) < std::tie(fact.topic, fact.name); ++add) {
            changes.push_back(ChangeOf(*add, true));
        }
        changes.push_back(ChangeOf(fact, false));
    }
    std::transform(add, added.end(), std::back_inserter(changes),
                   [](const Fact &fact) { return ChangeOf(fact, true); });
    return changes;
}

// What follows the number of changes.
std::string EffectText(const Comparison &comparison)
{
    if (comparison.endsInstance) {
        return "; ends the instance";
    }
    if (comparison.asksForStart) {
        const bool isReloadEnough = comparison.hasOperation && !comparison.needsStart && !comparison.changes.empty();
        return std::string("; restarts the instance") + (isReloadEnough ? R"(, "operation": "reload" is enough)" : "");
    }
    if (comparison.needsStart) {
        return R"(; needs "operation": "reboot")";
    }
    return "";
}

} // namespace

Comparison Compare(const std::optional<PackedConf> &inForce, const PackedConf &message)
{
    const Content before = inForce ? ContentOf(*inForce) : Content();
    const Content after = ContentOf(message);
    Comparison comparison;
    comparison.isFirst = !inForce;
    comparison.changes = ChangesBetween(before.facts, after.facts);
    comparison.endsInstance = before.enables && !after.enables;
    comparison.hasOperation = after.operation.has_value();
    comparison.asksForStart = after.enables && after.operation.value_or(kReboot) == kReboot;
    comparison.needsStart =
        after.enables && (!before.enables || std::ranges::any_of(comparison.changes, &Change::isReadAtStart));
    return comparison;
}

std::string SummaryText(const Comparison &comparison)
{
    const std::size_t count = comparison.changes.size();
    return std::string(comparison.isFirst ? "nothing is in force; " : "") +
           (count == 0 ? "no change" : Counted(count, "change")) + EffectText(comparison);
}

std::string ChangeLines(const Comparison &comparison)
{
    std::string lines;
    for (const Change &change : comparison.changes) {
        lines += (change.isAdded ? "+ " : "- ") + change.field + " " + Printable(change.value) + "\n";
    }
    return lines;
}

JsonPtr ComparisonJson(const Comparison &comparison)
{
    JsonPtr changes = NewJsonArray();
    for (const Change &change : comparison.changes) {
        JsonPtr object = NewJsonObject();
        AddMember(object.get(), "change", JsonText(change.isAdded ? "added" : "removed"));
        AddMember(object.get(), "field", JsonText(change.field));
        AddMember(object.get(), "value", JsonText(change.value));
        AddElement(changes.get(), std::move(object));
    }
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "in_force", JsonBool(!comparison.isFirst));
    AddMember(object.get(), "changes", std::move(changes));
    AddMember(object.get(), "ends_instance", JsonBool(comparison.endsInstance));
    AddMember(object.get(), "restarts", JsonBool(comparison.asksForStart));
    AddMember(object.get(), "needs_restart", JsonBool(comparison.needsStart));
    return object;
}

} // namespace kavel::ctl
