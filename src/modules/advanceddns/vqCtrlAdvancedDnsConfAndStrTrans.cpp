// Translates the record to JSON text and back.
#include "vqCtrlAdvancedDns.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <json-c/json.h>

#include "vqCtrlAdvancedDnsGuard.h"
#include "vqCtrlAdvancedDnsJsonText.h"
#include "vqCtrlAdvancedDnsLog.h"
#include "vqCtrlAdvancedDnsSizes.h"
#include "vqErrno.h"
#include "vqSafeStr.h"

// ---- Writing ----

// The function names for the log prefix, whichever helper finds the error.
static constexpr const char *kWriter = "_VQCtrl_AdvancedDnsConfToJson";
static constexpr const char *kReader = "_VQCtrl_AdvancedDnsJsonToConf";

// Moves `Value` into the parent. Releases it on failure. Null means that it could not be allocated.
static VQ_ERR_T _VQCtrl_AddMember(json_object *Parent, const JsonMember &Member, json_object *Value)
{
    advanceddns::JsonTree Owned(Value);
    if (Owned == nullptr || json_object_object_add(Parent, Member.Key, Value) != 0) {
        VQ_CTRL_LOG_ERROR_TEXT(kWriter, Member.CantNew);
        return VQ_ERR_NO_MEMORY;
    }
    static_cast<void>(Owned.Release());
    return VQ_ERR_OK;
}

// The integers of the document are signed 32-bit numbers.
static VQ_ERR_T _VQCtrl_AddInt(json_object *Parent, const JsonMember &Member, uint32_t Value)
{
    return _VQCtrl_AddMember(Parent, Member, json_object_new_int(static_cast<int32_t>(Value)));
}

static VQ_ERR_T _VQCtrl_AddString(json_object *Parent, const JsonMember &Member, const char *Value)
{
    return _VQCtrl_AddMember(Parent, Member, json_object_new_string(Value));
}

static VQ_ERR_T _VQCtrl_AddIp(json_object *Parent, const JsonMember &Member, uint32_t Ip)
{
    char IpText[kIpTextSize] = {};
    const size_t Length = VQ_SNPrintf(IpText, sizeof(IpText), "%u.%u.%u.%u", Ip >> 24U & 0xFFU, Ip >> 16U & 0xFFU,
                                      Ip >> 8U & 0xFFU, Ip & 0xFFU);
    if (Length >= sizeof(IpText)) {
        VQ_CTRL_LOG_ERROR_AS(kWriter, "ip string is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    return _VQCtrl_AddString(Parent, Member, IpText);
}

static VQ_ERR_T _VQCtrl_HostToJson(const VQ_CTRL_DNS_HOST_CONF &Host, json_object *Item)
{
    const VQ_ERR_T Result = _VQCtrl_AddIp(Item, kIp, Host.Ip);
    return Result < 0 ? Result : _VQCtrl_AddString(Item, kDomain, Host.Domain);
}

static VQ_ERR_T _VQCtrl_MxHostToJson(const VQ_CTRL_DNS_MX_HOST_CONF &MxHost, json_object *Item)
{
    VQ_ERR_T Result = _VQCtrl_AddString(Item, kTargetDomain, MxHost.TargetDomain);
    if (Result >= 0) {
        Result = _VQCtrl_AddString(Item, kSourceDomain, MxHost.SourceDomain);
    }
    return Result < 0 ? Result : _VQCtrl_AddInt(Item, kPreference, MxHost.Preference);
}

static VQ_ERR_T _VQCtrl_ServerToJson(const VQ_CTRL_DNS_SERVER_CONF &Server, json_object *Item)
{
    const VQ_ERR_T Result = _VQCtrl_AddIp(Item, kDnsServerIp, Server.DnsServerIp);
    return Result < 0 ? Result : _VQCtrl_AddString(Item, kIfname, Server.Ifname);
}

static VQ_ERR_T _VQCtrl_ProxyToJson(const VQ_CTRL_DNS_PROXY_CONF &Proxy, json_object *Item)
{
    const VQ_ERR_T Result = _VQCtrl_AddString(Item, kDomain, Proxy.Domain);
    return Result < 0 ? Result : _VQCtrl_AddIp(Item, kServerIp, Proxy.ServerIp);
}

// Adds each element to its array before its members, so that the root frees it if a member fails.
template <typename Entry>
static VQ_ERR_T _VQCtrl_AddList(json_object *Root, const JsonMember &List, const advanceddns::PlainText &CantNewItem,
                                const Entry *Entries, size_t Count,
                                VQ_ERR_T (*ToJson)(const Entry &Value, json_object *Item))
{
    json_object *Array = json_object_new_array();
    VQ_ERR_T Result = _VQCtrl_AddMember(Root, List, Array);
    for (size_t Loop = 0; Result >= 0 && Loop < Count; ++Loop) {
        advanceddns::JsonTree Item(json_object_new_object());
        if (Item == nullptr || json_object_array_add(Array, Item.Get()) != 0) {
            VQ_CTRL_LOG_ERROR_TEXT(kWriter, CantNewItem);
            return VQ_ERR_NO_MEMORY;
        }
        Result = ToJson(Entries[Loop], Item.Release());
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_HeaderToJson(const VQ_CTRL_DNSMASQ_CONF *Conf, json_object *Root)
{
    VQ_ERR_T Result = _VQCtrl_AddMember(Root, kEnable, json_object_new_boolean(Conf->Enable != FALSE));
    if (Result >= 0) {
        Result = _VQCtrl_AddInt(Root, kVpnId, Conf->VpnId);
    }
    if (Result >= 0) {
        // After a restart of the agent there may be no instance that a reload could reach.
        Result = _VQCtrl_AddInt(Root, kOp, VQ_CTRL_DNSMASQ_OP_REBOOT);
    }
    if (Result >= 0) {
        Result = _VQCtrl_AddInt(Root, kDnsHostNum, Conf->DnsHostNum);
    }
    if (Result >= 0) {
        Result = _VQCtrl_AddInt(Root, kDnsMxHostNum, Conf->DnsMxHostNum);
    }
    if (Result >= 0) {
        Result = _VQCtrl_AddInt(Root, kDnsServerNum, Conf->DnsServerNum);
    }
    return Result < 0 ? Result : _VQCtrl_AddInt(Root, kDnsProxyNum, Conf->DnsProxyNum);
}

// Adds the record to the empty object `Root`. On failure, `Root` keeps the members that were added; the caller frees
// it.
static VQ_ERR_T _VQCtrl_AdvancedDnsConfToJson(const VQ_CTRL_DNSMASQ_CONF *Conf, json_object *Root)
{
    VQ_ERR_T Result = _VQCtrl_HeaderToJson(Conf, Root);
    if (Result >= 0) {
        Result = _VQCtrl_AddList(Root, kDnsHost, kCantNewHostItem, Conf->DnsHost, Conf->DnsHostNum, _VQCtrl_HostToJson);
    }
    if (Result >= 0) {
        Result = _VQCtrl_AddList(Root, kDnsMxHost, kCantNewMxHostItem, Conf->DnsMxHost, Conf->DnsMxHostNum,
                                 _VQCtrl_MxHostToJson);
    }
    if (Result >= 0) {
        Result = _VQCtrl_AddList(Root, kDnsServer, kCantNewServerItem, Conf->DnsServer, Conf->DnsServerNum,
                                 _VQCtrl_ServerToJson);
    }
    if (Result >= 0) {
        Result =
            _VQCtrl_AddList(Root, kDnsProxy, kCantNewProxyItem, Conf->DnsProxy, Conf->DnsProxyNum, _VQCtrl_ProxyToJson);
    }
    return Result < 0 ? Result : _VQCtrl_AddIp(Root, kLocalIp, Conf->LocalIp);
}

char *VQCtrl_AdvancedDnsConfToJsonStr(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const advanceddns::JsonTree Root(json_object_new_object());
    if (Root == nullptr) {
        VQ_CTRL_LOG_ERROR("Can't new dnsmasqJson json object\n");
        return nullptr;
    }
    const VQ_ERR_T Result = _VQCtrl_AdvancedDnsConfToJson(Conf, Root.Get());
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Agent dnsmasq conf to json failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
        return nullptr;
    }
    const char *Text = json_object_to_json_string(Root.Get());
    if (Text == nullptr) {
        VQ_CTRL_LOG_ERROR("Trans json object to json string failed\n");
        return nullptr;
    }
    VQ_CTRL_LOG_VERBOSE("dnsmasq conf json str: %s\n", Text);
    const size_t Size = strlen(Text) + 1;
    auto *Copy = static_cast<char *>(VQ_AgentMemAlloc(Size));
    if (Copy == nullptr) {
        VQ_CTRL_LOG_ERROR("Failed to alloc memory for jsonStr\n");
        return nullptr;
    }
    std::memcpy(Copy, Text, Size);
    return Copy;
}

// ---- Reading ----

// Stores in `*ValInt` what json-c returns, also on failure: the nearest 32-bit number for a number that does not fit,
// and 0 for a value that is no number. -22: no such member, or not a number. -75: the smallest or largest 32-bit
// number.
static VQ_ERR_T VQ_JsonSafeGetI32(json_object *JObj, const char *Key, int32_t *ValInt)
{
    json_object *Value = nullptr;
    *ValInt = 0;
    if (json_object_object_get_ex(JObj, Key, &Value) == 0) {
        return VQ_ERR_INVALID;
    }
    errno = 0;
    *ValInt = json_object_get_int(Value);
    if (*ValInt == INT32_MAX || *ValInt == INT32_MIN) {
        return VQ_ERR_OVERFLOW;
    }
    return *ValInt == 0 && errno == EINVAL ? VQ_ERR_INVALID : VQ_ERR_OK;
}

// -22: no such member; then `*ValBool` is not changed.
static VQ_ERR_T VQ_JsonSafeGetBool(json_object *JObj, const char *Key, BOOL *ValBool)
{
    json_object *Value = nullptr;
    if (json_object_object_get_ex(JObj, Key, &Value) == 0) {
        return VQ_ERR_INVALID;
    }
    *ValBool = json_object_get_boolean(Value) != 0 ? TRUE : FALSE;
    return VQ_ERR_OK;
}

// -22: no such member, or null. -75: the text does not fit; then `OutStr` has its beginning.
static VQ_ERR_T VQ_JsonSafeGetStr(json_object *JObj, const char *Key, char *OutStr, size_t OutStrSize)
{
    json_object *Value = nullptr;
    static_cast<void>(json_object_object_get_ex(JObj, Key, &Value));
    const char *Text = json_object_get_string(Value);
    if (Text == nullptr) {
        return VQ_ERR_INVALID;
    }
    return VQ_SafeStrCopy(OutStr, OutStrSize, Text) >= OutStrSize ? VQ_ERR_OVERFLOW : VQ_ERR_OK;
}

template <size_t Size>
static VQ_ERR_T _VQCtrl_ReadText(json_object *Item, const char *Key, const advanceddns::PlainText &Lack,
                                 char (&Target)[Size])
{
    const VQ_ERR_T Result = VQ_JsonSafeGetStr(Item, Key, Target, Size);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_TEXT(kReader, Lack);
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_TextToIp(const char (&IpText)[kIpTextSize], uint32_t *Ip)
{
    if (VQ_SafeStrGetIp4Addr(IpText, sizeof(IpText), Ip) == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(kReader, "ip string to ip number failed\n");
        return VQ_ERR_INVALID;
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_ReadIp(json_object *Item, const char *Key, const advanceddns::PlainText &Lack, uint32_t *Ip)
{
    char IpText[kIpTextSize] = {};
    const VQ_ERR_T Result = _VQCtrl_ReadText(Item, Key, Lack, IpText);
    return Result < 0 ? Result : _VQCtrl_TextToIp(IpText, Ip);
}

static VQ_ERR_T _VQCtrl_JsonToHost(json_object *Item, VQ_CTRL_DNS_HOST_CONF *Host)
{
    const VQ_ERR_T Result = _VQCtrl_ReadIp(Item, kIp.Key, VQ_CTRL_LOG_TEXT("Lack of Ip\n"), &Host->Ip);
    return Result < 0 ? Result
                      : _VQCtrl_ReadText(Item, kDomain.Key, VQ_CTRL_LOG_TEXT("Lack of Domain\n"), Host->Domain);
}

static VQ_ERR_T _VQCtrl_JsonToMxHost(json_object *Item, VQ_CTRL_DNS_MX_HOST_CONF *MxHost)
{
    VQ_ERR_T Result =
        _VQCtrl_ReadText(Item, kTargetDomain.Key, VQ_CTRL_LOG_TEXT("Lack of TargetDomain\n"), MxHost->TargetDomain);
    if (Result >= 0) {
        Result =
            _VQCtrl_ReadText(Item, kSourceDomain.Key, VQ_CTRL_LOG_TEXT("Lack of SourceDomain\n"), MxHost->SourceDomain);
    }
    if (Result < 0) {
        return Result;
    }
    int32_t Preference = 0;
    Result = VQ_JsonSafeGetI32(Item, kPreference.Key, &Preference);
    MxHost->Preference = static_cast<uint32_t>(Preference);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(kReader, "Lack of Preference\n");
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_JsonToServer(json_object *Item, VQ_CTRL_DNS_SERVER_CONF *Server)
{
    const VQ_ERR_T Result =
        _VQCtrl_ReadIp(Item, kDnsServerIp.Key, VQ_CTRL_LOG_TEXT("Lack of DnsServerIp\n"), &Server->DnsServerIp);
    return Result < 0 ? Result
                      : _VQCtrl_ReadText(Item, kIfname.Key, VQ_CTRL_LOG_TEXT("Lack of Ifname\n"), Server->Ifname);
}

static VQ_ERR_T _VQCtrl_JsonToProxy(json_object *Item, VQ_CTRL_DNS_PROXY_CONF *Proxy)
{
    const VQ_ERR_T Result =
        _VQCtrl_ReadIp(Item, kServerIp.Key, VQ_CTRL_LOG_TEXT("Lack of ServerIp\n"), &Proxy->ServerIp);
    return Result < 0 ? Result
                      : _VQCtrl_ReadText(Item, kDomain.Key, VQ_CTRL_LOG_TEXT("Lack of Domain\n"), Proxy->Domain);
}

// Returns the array of a list whose count is not 0. If it cannot be read, returns null and the reason in `*Result`.
static json_object *_VQCtrl_GetArray(json_object *Root, const char *Key, const ListTexts &Texts, size_t Capacity,
                                     VQ_ERR_T *Result)
{
    json_object *Array = nullptr;
    *Result = VQ_ERR_INVALID;
    if (json_object_object_get_ex(Root, Key, &Array) == 0) {
        VQ_CTRL_LOG_ERROR_TEXT(kReader, Texts.IsMissing);
        return nullptr;
    }
    if (json_object_get_type(Array) != json_type_array) {
        VQ_CTRL_LOG_ERROR_TEXT(kReader, Texts.IsNotArray);
        return nullptr;
    }
    if (json_object_array_length(Array) > Capacity) {
        *Result = VQ_ERR_OVERFLOW;
        VQ_CTRL_LOG_ERROR_TEXT(kReader, Texts.IsOverCapacity, static_cast<uint32_t>(Capacity));
        return nullptr;
    }
    *Result = VQ_ERR_OK;
    return Array;
}

// Does not look at a list whose count is 0. If the count differs from the length of the array, the length is used.
template <typename Number, typename Entry, size_t Capacity>
static VQ_ERR_T _VQCtrl_ReadList(json_object *Root, const char *Key, const ListTexts &Texts, Number *Count,
                                 Entry (&Entries)[Capacity], VQ_ERR_T (*FromJson)(json_object *Item, Entry *Target))
{
    if (*Count == 0) {
        return VQ_ERR_OK;
    }
    VQ_ERR_T Result = VQ_ERR_OK;
    json_object *Array = _VQCtrl_GetArray(Root, Key, Texts, Capacity, &Result);
    if (Array == nullptr) {
        return Result;
    }
    const size_t Length = json_object_array_length(Array);
    if (Length != *Count) {
        VQ_CTRL_LOG_NOTICE_TEXT(kReader, Texts.NumDiffers);
        *Count = static_cast<Number>(Length);
    }
    for (size_t Loop = 0; Result >= 0 && Loop < Length; ++Loop) {
        json_object *Item = json_object_array_get_idx(Array, Loop);
        if (Item == nullptr) {
            VQ_CTRL_LOG_ERROR_TEXT(kReader, Texts.ItemIsEmpty, Loop);
            return VQ_ERR_INVALID;
        }
        Result = FromJson(Item, &Entries[Loop]);
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_ReadHeader(json_object *Root, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    VQ_ERR_T Result = VQ_JsonSafeGetBool(Root, kEnable.Key, &Conf->Enable);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(kReader, "Lack of Enable\n");
        return Result;
    }
    int32_t Value = 0;
    if (VQ_JsonSafeGetI32(Root, kVpnId.Key, &Value) < 0) {
        VQ_CTRL_LOG_WARNING_AS(kReader, "Lack of VpnId, set it to zero\n");
        Value = 0;
    }
    Conf->VpnId = static_cast<uint32_t>(Value);
    Result = VQ_JsonSafeGetI32(Root, kOp.Key, &Value);
    Conf->Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(static_cast<uint32_t>(Value));
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(kReader, "Lack of Op\n");
    }
    return Result;
}

// If the count is missing or bad, the list stays empty.
template <typename Number>
static void _VQCtrl_ReadCount(json_object *Root, const char *Key, Number *Count)
{
    int32_t Value = 0;
    if (VQ_JsonSafeGetI32(Root, Key, &Value) == VQ_ERR_OK) {
        *Count = static_cast<Number>(Value);
    }
}

static VQ_ERR_T _VQCtrl_ReadLists(json_object *Root, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    VQ_ERR_T Result =
        _VQCtrl_ReadList(Root, kDnsHost.Key, kHostTexts, &Conf->DnsHostNum, Conf->DnsHost, _VQCtrl_JsonToHost);
    if (Result >= 0) {
        Result = _VQCtrl_ReadList(Root, kDnsMxHost.Key, kMxHostTexts, &Conf->DnsMxHostNum, Conf->DnsMxHost,
                                  _VQCtrl_JsonToMxHost);
    }
    if (Result >= 0) {
        Result = _VQCtrl_ReadList(Root, kDnsServer.Key, kServerTexts, &Conf->DnsServerNum, Conf->DnsServer,
                                  _VQCtrl_JsonToServer);
    }
    if (Result >= 0) {
        Result =
            _VQCtrl_ReadList(Root, kDnsProxy.Key, kProxyTexts, &Conf->DnsProxyNum, Conf->DnsProxy, _VQCtrl_JsonToProxy);
    }
    return Result;
}

// Readers do not check the counts, so even a record that must not be used may not have a count above its table. The
// count of the forwards has 16 bits and cannot be above it.
static void _VQCtrl_DropImpossibleCounts(VQ_CTRL_DNSMASQ_CONF *Conf)
{
    if (Conf->DnsHostNum > VQ_DNS_HOST_MAX) {
        Conf->DnsHostNum = 0;
    }
    if (Conf->DnsMxHostNum > VQ_DNS_MX_HOST_MAX) {
        Conf->DnsMxHostNum = 0;
    }
    if (Conf->DnsServerNum > VQ_DNS_SERVER_MAX) {
        Conf->DnsServerNum = 0;
    }
}

// Fills a zeroed record. Checks types and lengths only. On failure, the record keeps what was read so far.
static VQ_ERR_T _VQCtrl_AdvancedDnsJsonToConf(VQ_CTRL_DNSMASQ_CONF *Conf, json_object *Root)
{
    VQ_ERR_T Result = _VQCtrl_ReadHeader(Root, Conf);
    if (Result < 0) {
        return Result;
    }
    _VQCtrl_ReadCount(Root, kDnsHostNum.Key, &Conf->DnsHostNum);
    _VQCtrl_ReadCount(Root, kDnsMxHostNum.Key, &Conf->DnsMxHostNum);
    _VQCtrl_ReadCount(Root, kDnsServerNum.Key, &Conf->DnsServerNum);
    _VQCtrl_ReadCount(Root, kDnsProxyNum.Key, &Conf->DnsProxyNum);
    Result = _VQCtrl_ReadLists(Root, Conf);
    if (Result < 0) {
        _VQCtrl_DropImpossibleCounts(Conf);
        return Result;
    }
    char IpText[kIpTextSize] = {};
    if (VQ_JsonSafeGetStr(Root, kLocalIp.Key, IpText, sizeof(IpText)) < 0) {
        return VQ_ERR_OK;
    }
    return _VQCtrl_TextToIp(IpText, &Conf->LocalIp);
}

VQ_ERR_T VQCtrl_AdvancedDnsJsonStrToConf(VQ_CTRL_DNSMASQ_CONF *Conf, const char *DnsmasqStr)
{
    VQ_CTRL_LOG_VERBOSE("agent dnsmasq conf json = %s \n", DnsmasqStr);
    const advanceddns::JsonTree Root(json_tokener_parse(DnsmasqStr));
    if (Root == nullptr) {
        VQ_CTRL_LOG_ERROR("invalid dnsmasq string, not json\n");
        return VQ_ERR_INVALID;
    }
    const VQ_ERR_T Result = _VQCtrl_AdvancedDnsJsonToConf(Conf, Root.Get());
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Json to data struct failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}
