#include "goldenInput.h"

#include <arpa/inet.h>
#include <functional>
#include <stdexcept>

#include <json_tokener.h>
#include <json_util.h>

#include "vqRule.h"

namespace {

using ItemHandler = std::function<void(json_object *Item, uint32_t Number)>;

json_object *Member(json_object *Object, const char *Name)
{
    json_object *Found = nullptr;
    return json_object_object_get_ex(Object, Name, &Found) != 0 ? Found : nullptr;
}

json_object *Required(json_object *Object, const char *Name)
{
    json_object *Found = Member(Object, Name);
    if (Found == nullptr) {
        throw std::runtime_error(std::string("no member ") + Name);
    }
    return Found;
}

uint32_t Number(json_object *Object, const char *Name)
{
    return static_cast<uint32_t>(json_object_get_uint64(Required(Object, Name)));
}

// False if there is no such member.
bool IsSet(json_object *Object, const char *Name)
{
    return json_object_get_boolean(Member(Object, Name)) != 0;
}

void ForEach(json_object *List, const ItemHandler &Handle)
{
    const std::size_t Length = List == nullptr ? 0 : json_object_array_length(List);
    for (std::size_t At = 0; At < Length; ++At) {
        json_object *Element = json_object_array_get_idx(List, At);
        const bool Repeated = Member(Element, "repeat") != nullptr;
        const uint32_t Count = Repeated ? Number(Element, "repeat") : 1;
        json_object *Item = Repeated ? Required(Element, "item") : Element;
        for (uint32_t Copy = 0; Copy < Count; ++Copy) {
            Handle(Item, Copy);
        }
    }
}

std::string Expand(const std::string &Text, uint32_t Copy)
{
    std::string Out;
    for (std::size_t At = 0; At < Text.size(); ++At) {
        if (Text[At] == '#') {
            Out += std::to_string(Copy);
        } else if (Text[At] == '(') {
            const std::size_t End = Text.find(')', At);
            Out.append(std::stoul(Text.substr(At + 3, End - At - 3)), Text[At + 1]);
            At = End;
        } else {
            Out += Text[At];
        }
    }
    return Out;
}

std::string Text(json_object *Value, uint32_t Copy)
{
    return Expand(json_object_get_string(Value), Copy);
}

uint32_t Address(json_object *Value, uint32_t Copy)
{
    const std::string Whole = json_object_get_string(Value);
    const std::size_t Plus = Whole.find('+');
    in_addr Parsed{};
    if (inet_pton(AF_INET, Whole.substr(0, Plus).c_str(), &Parsed) != 1) {
        throw std::runtime_error("no address: " + Whole);
    }
    const auto Offset = Plus == std::string::npos ? 0 : std::stoul(Expand(Whole.substr(Plus + 1), Copy));
    return ntohl(Parsed.s_addr) + static_cast<uint32_t>(Offset);
}

CpeMessage::Text OptionalText(json_object *Object, const char *Name, uint32_t Copy)
{
    json_object *Value = Member(Object, Name);
    return Value == nullptr ? std::nullopt : CpeMessage::Text(Text(Value, Copy));
}

void AddProxyItem(CpeMessage &Message, json_object *Item, uint32_t Copy)
{
    std::vector<CpeMessage::Text> Domains;
    std::vector<uint32_t> Addresses;
    ForEach(Required(Item, "domains"), [&](json_object *Each, uint32_t) { Domains.emplace_back(Text(Each, Copy)); });
    ForEach(Required(Item, "ips"), [&](json_object *Each, uint32_t) { Addresses.push_back(Address(Each, Copy)); });
    Message.AddProxy(Domains, Addresses);
}

} // namespace

GoldenInput::GoldenInput(const std::filesystem::path &Path) : m_Root(json_object_from_file(Path.c_str()))
{
    if (!m_Root) {
        throw std::runtime_error(Path.string() + ": " + json_util_get_last_err());
    }
}

std::string GoldenInput::Kind() const
{
    return json_object_get_string(Required(m_Root.get(), "kind"));
}

void GoldenInput::FillMessage(CpeMessage &Message) const
{
    json_object *Root = m_Root.get();
    Message = CpeMessage(Number(Root, "vpn"), IsSet(Root, "enable"), Number(Root, "operation"));
    Message.Pb().has_persistentflag = Member(Root, "persistent") != nullptr ? 1 : 0;
    Message.Pb().persistentflag = IsSet(Root, "persistent") ? 1 : 0;
    ForEach(Member(Root, "hosts"), [&](json_object *Item, uint32_t Copy) {
        Message.AddHost(Text(Required(Item, "domain"), Copy), Address(Required(Item, "ip"), Copy));
    });
    ForEach(Member(Root, "mx"), [&](json_object *Item, uint32_t Copy) {
        Message.AddMx(Text(Required(Item, "target"), Copy), Text(Required(Item, "source"), Copy),
                      Number(Item, "preference"));
    });
    ForEach(Member(Root, "servers"), [&](json_object *Item, uint32_t Copy) {
        Message.AddServer(Address(Required(Item, "ip"), Copy), OptionalText(Item, "interface", Copy));
    });
    ForEach(Member(Root, "proxies"), [&](json_object *Item, uint32_t Copy) { AddProxyItem(Message, Item, Copy); });
}

void GoldenInput::FillRecord(VQ_CTRL_DNSMASQ_CONF &Conf) const
{
    json_object *Root = m_Root.get();
    Conf.VpnId = Number(Root, "vpn");
    ForEach(Member(Root, "hosts"), [&](json_object *Item, uint32_t Copy) {
        AddHost(Conf, Address(Required(Item, "ip"), Copy), Text(Required(Item, "domain"), Copy));
    });
    ForEach(Member(Root, "mx"), [&](json_object *Item, uint32_t Copy) {
        AddMx(Conf, Text(Required(Item, "target"), Copy), Text(Required(Item, "source"), Copy),
              Number(Item, "preference"));
    });
    ForEach(Member(Root, "servers"), [&](json_object *Item, uint32_t Copy) {
        AddServer(Conf, Address(Required(Item, "ip"), Copy), OptionalText(Item, "interface", Copy).value_or(""));
    });
    ForEach(Member(Root, "proxies"), [&](json_object *Item, uint32_t Copy) {
        AddProxy(Conf, Text(Required(Item, "domain"), Copy), Address(Required(Item, "ip"), Copy));
    });
}

PopMessage GoldenInput::ToPopMessage() const
{
    json_object *Root = m_Root.get();
    std::vector<uint32_t> Servers;
    ForEach(Member(Root, "servers"), [&](json_object *Item, uint32_t Copy) { Servers.push_back(Address(Item, Copy)); });
    PopMessage Message(Servers, Address(Required(Root, "local"), 0), IsSet(Root, "enable"));
    if (Member(Root, "persistent") != nullptr) {
        Message.AskForPersistence(IsSet(Root, "persistent"));
    }
    return Message;
}

std::vector<uint32_t> GoldenInput::VpnIds() const
{
    std::vector<uint32_t> Out;
    ForEach(Member(m_Root.get(), "rows"),
            [&](json_object *Row, uint32_t) { Out.push_back(Number(Required(Row, "document"), "VpnId")); });
    return Out.empty() ? std::vector<uint32_t>{Number(m_Root.get(), "vpn")} : Out;
}

void GoldenInput::PrepareVpn(fakehost::Host &Host, uint32_t VpnId, pid_t Pid) const
{
    constexpr uint16_t DnsPort = 53;
    json_object *Box = Required(m_Root.get(), "box");
    fakehost::LanList Lans;
    fakehost::WanList Wans;
    ForEach(Member(Box, "lans"), [&](json_object *Each, uint32_t Copy) { Lans.Names.push_back(Text(Each, Copy)); });
    ForEach(Member(Box, "systemRoutesOfWans"),
            [&](json_object *Each, uint32_t) { Wans.SysRoutes.push_back(json_object_get_boolean(Each) != 0); });
    Host.Files.PutInstance(VpnId);
    Host.Netio.SetLans(VpnId, Lans);
    Host.Netio.SetWans(VpnId, Wans);
    if (IsSet(Box, "running")) {
        Host.Proc.AddInstance(Pid, VpnId);
        Host.Proc.PutPidFile(VpnId, std::to_string(Pid) + "\n");
    }
    if (IsSet(Box, "portTaken")) {
        Host.Netns.PutListener(VpnId, DnsPort);
    }
    if (IsSet(Box, "rules")) {
        Host.Rules.Put({VQ_CONF_RULE_TBL_TYPE_DNS, 0, VpnId + 2, Host.Rules.PlatformCustomer});
        Host.Rules.Put({VQ_CONF_RULE_TBL_TYPE_DNAT, 0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0});
    }
}

void GoldenInput::PrepareStore(fakehost::Host &Host) const
{
    Host.Rows.Enabled = IsSet(Required(m_Root.get(), "box"), "persistence");
    Host.Rows.Conversions = ModuleConversions();
    ForEach(Member(m_Root.get(), "rows"), [&](json_object *Row, uint32_t) {
        json_object *Document = Required(Row, "document");
        Host.Rows.Rows[{Number(Row, "table"), Number(Document, "VpnId")}] =
            json_object_to_json_string_ext(Document, JSON_C_TO_STRING_PLAIN);
    });
}

void GoldenInput::PrepareBox(fakehost::Host &Host) const
{
    pid_t Pid = 1234;
    for (const uint32_t VpnId : VpnIds()) {
        PrepareVpn(Host, VpnId, Pid++);
    }
    PrepareStore(Host);
}
