#include "socket/message_checks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <list>
#include <string>
#include <vector>

#include "instances/controller_message.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

// The objection to a message whose second server is bound to an interface called `name`.
std::optional<std::string> ObjectionTo(std::string name)
{
    const Bytes packed = PackCpe(7, true, 1, [&](DnsmasqConf &message) {
        static DnsServerItem unbound;
        static DnsServerItem bound;
        static std::array<DnsServerItem *, 2> items{&unbound, &bound};
        dns_server_item__init(&unbound);
        dns_server_item__init(&bound);
        bound.ifname = name.data();
        message.dnsservers = items.data();
        message.n_dnsservers = items.size();
    });
    const auto message = UnpackControllerMessage(Platform::kCpe, packed);
    EXPECT_TRUE(message);
    return InterfaceNameObjection(*message->pointer.DnsmasqPbCPE);
}

TEST(InterfaceNameObjection, AllowsWhatAnInterfaceMayBeCalled)
{
    for (const char *name : {"", "wan0", "eth0.100", "a-b_c@d", "#&%", "w\xC3\xA4n"}) {
        EXPECT_EQ(ObjectionTo(name), std::nullopt) << name;
    }
}

TEST(InterfaceNameObjection, ObjectsToWhatNoInterfaceMayBeCalled)
{
    for (const char *name : {"wan0\nlog-queries", "wan 0", "wan\t", "a/b", "a:b", "\x01", "\x7F", "wan0\r"}) {
        EXPECT_EQ(ObjectionTo(name), "dnsservers[1].ifname is not an interface name") << name;
    }
}

TEST(InterfaceNameObjection, AllowsAMessageWithoutServers)
{
    const auto message = UnpackControllerMessage(Platform::kCpe, PackCpe(7, true, 1));
    ASSERT_TRUE(message);
    EXPECT_EQ(InterfaceNameObjection(*message->pointer.DnsmasqPbCPE), std::nullopt);
}

// A message that owns what it points at.
class Message {
  public:
    Message() { dnsmasq_conf__init(&content_); }

    Message &Host(const std::string &domain)
    {
        Append(hosts_, dns_host_item__init).domain = Keep(domain);
        return *this;
    }
    Message &Mx(const std::string &source, const std::string &target, std::uint32_t preference)
    {
        DnsMxHostItem &item = Append(mxHosts_, dns_mx_host_item__init);
        item.sourcedomain = Keep(source);
        item.targetdomain = Keep(target);
        item.preference = preference;
        return *this;
    }
    Message &Server(const std::string &interface)
    {
        Append(servers_, dns_server_item__init).ifname = interface.empty() ? nullptr : Keep(interface);
        return *this;
    }
    Message &Forward(const std::vector<std::string> &domains, std::vector<std::uint32_t> servers)
    {
        DnsProxyItemV2 &item = Append(forwards_, dns_proxy_item_v2__init);
        std::vector<char *> &names = names_.emplace_back();
        for (const std::string &domain : domains) {
            names.push_back(Keep(domain));
        }
        item.domains = names.data();
        item.n_domains = names.size();
        item.serverips = addresses_.emplace_back(std::move(servers)).data();
        item.n_serverips = addresses_.back().size();
        return *this;
    }

    const DnsmasqConf &Content()
    {
        content_.dnshosts = Point(hosts_, hostPointers_);
        content_.n_dnshosts = hosts_.size();
        content_.dnsmxhost = Point(mxHosts_, mxPointers_);
        content_.n_dnsmxhost = mxHosts_.size();
        content_.dnsservers = Point(servers_, serverPointers_);
        content_.n_dnsservers = servers_.size();
        content_.dnsproxies = Point(forwards_, forwardPointers_);
        content_.n_dnsproxies = forwards_.size();
        return content_;
    }

  private:
    char *Keep(const std::string &text) { return texts_.emplace_back(text).data(); }

    template <typename Item>
    Item &Append(std::list<Item> &items, void (*init)(Item *))
    {
        init(&items.emplace_back());
        return items.back();
    }

    template <typename Item>
    static Item **Point(std::list<Item> &items, std::vector<Item *> &pointers)
    {
        pointers.clear();
        for (Item &item : items) {
            pointers.push_back(&item);
        }
        return pointers.data();
    }

    DnsmasqConf content_{};
    std::list<std::string> texts_;
    std::list<std::vector<char *>> names_;
    std::list<std::vector<std::uint32_t>> addresses_;
    std::list<DnsHostItem> hosts_;
    std::list<DnsMxHostItem> mxHosts_;
    std::list<DnsServerItem> servers_;
    std::list<DnsProxyItemV2> forwards_;
    std::vector<DnsHostItem *> hostPointers_;
    std::vector<DnsMxHostItem *> mxPointers_;
    std::vector<DnsServerItem *> serverPointers_;
    std::vector<DnsProxyItemV2 *> forwardPointers_;
};

class MessageChecks : public testing::Test {
  protected:
    std::optional<std::string> Objection() { return StartObjection(message_.Content(), module_.functions); }
    std::optional<std::string> Field(std::string_view reason)
    {
        return FieldOfReason(message_.Content(), module_.functions, reason);
    }

    const std::string label63_ = std::string(63, 'a');
    const std::string label64_ = std::string(64, 'a');
    // Labels of 62 characters, 254 in all.
    const std::string name254_ = std::string(62, 'a') + "." + std::string(62, 'b') + "." + std::string(62, 'c') + "." +
                                 std::string(61, 'd') + ".org";
    Message message_;
    FakeModule module_;
};

TEST_F(MessageChecks, WhatDnsmasqStartsWithIsAccepted)
{
    ASSERT_EQ(name254_.size(), 254U);
    message_.Host("nas.example")
        .Mx(label63_ + ".example", name254_, 65535)
        .Server("")
        .Server("wan0.100")
        .Forward({"a.example", name254_}, {1});
    EXPECT_EQ(Objection(), std::nullopt);
    EXPECT_THAT(IneffectiveFields(message_.Content(), module_.functions), IsEmpty());
}

TEST_F(MessageChecks, APreferenceAbove65535KeepsDnsmasqFromStarting)
{
    message_.Mx("a.example", "b.example", 10).Mx("a.example", "b.example", 65536);
    EXPECT_EQ(Objection(), "dnsmxhost[1].preference: it is 65536; dnsmasq accepts 65535 at most");
}

TEST_F(MessageChecks, ALabelOver63KeepsDnsmasqFromStarting)
{
    const std::string reason = ": a label has 64 characters; dnsmasq accepts 63 at most";
    EXPECT_EQ(StartObjection(Message().Mx(label64_ + ".org", "b.org", 1).Content(), module_.functions),
              "dnsmxhost[0].sourcedomain" + reason);
    EXPECT_EQ(StartObjection(Message().Mx("a.org", "b." + label64_ + ".org", 1).Content(), module_.functions),
              "dnsmxhost[0].targetdomain" + reason);
    EXPECT_EQ(StartObjection(Message().Forward({"a.org"}, {1}).Forward({"a.org", label64_ + ".org"}, {1}).Content(),
                             module_.functions),
              "dnsproxies[1].domains[1]" + reason);
}

TEST_F(MessageChecks, ANameOf254WithCapitalsKeepsDnsmasqFromStarting)
{
    std::string capitals = name254_;
    capitals[0] = 'A';
    message_.Forward({capitals}, {1});
    EXPECT_EQ(Objection(),
              "dnsproxies[0].domains[0]: a name with capital letters has 254 characters; dnsmasq accepts 253 at most");
    EXPECT_EQ(StartObjection(Message().Forward({capitals.substr(1)}, {1}).Content(), module_.functions), std::nullopt);
}

TEST_F(MessageChecks, AnInterfaceNameWithSpecialCharactersKeepsDnsmasqFromStarting)
{
    for (const char letter : {'"', '#', '@'}) {
        EXPECT_EQ(StartObjection(Message().Server(std::string("a") + letter + "b").Content(), module_.functions),
                  std::string("dnsservers[0].ifname: dnsmasq's configuration cannot hold a name with '") + letter +
                      "'");
    }
}

TEST_F(MessageChecks, ForwardsThatAreSkippedDoNotMatter)
{
    message_.Forward({"x_y." + label64_ + ".org"}, {1});
    EXPECT_EQ(Objection(), std::nullopt);
}

TEST_F(MessageChecks, SkippedForwardsAndUnservedHostsAreTold)
{
    message_.Host("nas.example").Host(label64_ + ".org").Forward({"a.org", "x_y.org"}, {1});
    EXPECT_THAT(IneffectiveFields(message_.Content(), module_.functions),
                ElementsAre("dnshosts[1].domain: is not served: a label has 64 characters; dnsmasq accepts 63 at most",
                            "dnsproxies[0].domains[1]: is skipped: \"x_y.org\" is not a domain name"));
}

TEST_F(MessageChecks, ManySkippedForwardsAreCounted)
{
    message_.Forward(std::vector<std::string>(20, "x_y"), {1});
    const std::vector<std::string> lines = IneffectiveFields(message_.Content(), module_.functions);
    EXPECT_THAT(lines, SizeIs(9));
    EXPECT_EQ(lines.back(), "and 12 more");
}

TEST_F(MessageChecks, ALineOfAFileLeadsToItsField)
{
    message_.Mx("a.org", "b.org", 1).Mx("a.org", "b.org", 2);
    message_.Server("").Server("wan0").Server("").Server("wan1");
    // Lines 1 and 2; none for the name that is skipped; 3 and 4; none without servers; 5.
    message_.Forward({"a.org", "x_y", "b.org"}, {1, 0, 2}).Forward({"c.org"}, {0}).Forward({"d.org"}, {3});
    EXPECT_THAT(Field("dnsmasq: bad MX preference at line 2 of /etc/kavel/dnsmasq/vpn_7/dnsmasq.d//Mxhost.conf"),
                Optional(Eq("dnsmxhost[1]")));
    EXPECT_THAT(Field("dnsmasq: bad port at line 1 of /x/ServerMap.conf"), Optional(Eq("dnsservers[1]")));
    EXPECT_THAT(Field("dnsmasq: bad port at line 2 of /x/ServerMap.conf"), Optional(Eq("dnsservers[3]")));
    EXPECT_THAT(Field("dnsmasq: error at line 2 of /x/DnsProxy.conf"), Optional(Eq("dnsproxies[0].domains[0]")));
    EXPECT_THAT(Field("dnsmasq: error at line 3 of /x/DnsProxy.conf"), Optional(Eq("dnsproxies[0].domains[2]")));
    EXPECT_THAT(Field("dnsmasq: error at line 5 of /x/DnsProxy.conf"), Optional(Eq("dnsproxies[2].domains[0]")));
}

TEST_F(MessageChecks, AReasonWithoutAKnownLineHasNoField)
{
    message_.Mx("a.org", "b.org", 1).Server("wan0").Forward({"a.org"}, {1});
    for (const char *reason :
         {"", "dnsmasq: Address already in use", "x at line 2 of /x/Mxhost.conf", "x at line 0 of /x/Mxhost.conf",
          "x at line 2 of /x/ServerMap.conf", "x at line 2 of /x/DnsProxy.conf", "x at line 1 of /x/own.conf",
          "x at line one of /x/Mxhost.conf", "x at line 1", "x at line 99999999999999999999 of /x/Mxhost.conf"}) {
        EXPECT_EQ(Field(reason), std::nullopt) << reason;
    }
}

} // namespace
} // namespace kavel::agent
