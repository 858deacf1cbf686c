#include "store.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "host.h"

namespace fakehost {

namespace {

// A node has a record of 17 MB. New zeroed pages cost nothing until they are written.
struct FreeNode {
    void operator()(VQ_DnsmasqConfNode *Node) const { std::free(Node); }
};

std::unique_ptr<VQ_DnsmasqConfNode, FreeNode> NewNode()
{
    return std::unique_ptr<VQ_DnsmasqConfNode, FreeNode>(
        static_cast<VQ_DnsmasqConfNode *>(std::calloc(1, sizeof(VQ_DnsmasqConfNode))));
}

} // namespace

Store::~Store()
{
    for (VQ_PersistentConfList *List : m_Lists) {
        Free(List);
    }
}

int Store::Carry(uint32_t VpnId, const char *Text, VQ_SQL_CONF_OP Op, VQ_SQL_CONF_TBL Table)
{
    const Key Row{Table, VpnId};
    if (Op == VQ_SQL_CONF_OP_ADD && Text != nullptr) {
        Rows.insert_or_assign(Row, Text);
        return 0;
    }
    if (Op == VQ_SQL_CONF_OP_DEL && Text == nullptr) {
        return Rows.erase(Row) == 1 ? 0 : -ENOENT;
    }
    m_Host.Violation("the store asked for operation " + std::to_string(Op) + (Text == nullptr ? " without" : " with") +
                     " a text");
    return -EINVAL;
}

void Store::Append(VQ_PersistentConfList &List, const std::string &Text) const
{
    auto Node = NewNode();
    if (Conversions.DnsmasqStrToConf(&Node->Dnsmasq, Text.c_str()) < 0) {
        return;
    }
    // The list owns the node now.
    cds_list_add_tail(&Node.release()->List, &List.Head);
    ++List.Count;
}

VQ_PersistentConfList *Store::Read(VQ_SQL_CONF_TBL Table)
{
    if (Conversions.DnsmasqStrToConf == nullptr) {
        return nullptr;
    }
    VQ_PersistentConfList *List = MakeEmptyList(0);
    for (const auto &[Row, Text] : Rows) {
        if (Row.first == Table) {
            Append(*List, Text);
        }
    }
    List->Count = Count.value_or(List->Count);
    return List;
}

VQ_PersistentConfList *Store::MakeEmptyList(int32_t Told)
{
    auto List = std::make_unique<VQ_PersistentConfList>();
    CDS_INIT_LIST_HEAD(&List->Head);
    List->Count = Told;
    m_Lists.insert(List.get());
    return List.release();
}

void Store::Free(VQ_PersistentConfList *List)
{
    const std::unique_ptr<VQ_PersistentConfList> Owned(List);
    while (cds_list_empty(&List->Head) == 0) {
        VQ_LIST_HEAD *Link = List->Head.next;
        cds_list_del(Link);
        // The link is the first member of its node.
        const std::unique_ptr<VQ_DnsmasqConfNode, FreeNode> Node(reinterpret_cast<VQ_DnsmasqConfNode *>(Link));
    }
}

void Store::Release(VQ_PersistentConfList *List)
{
    if (m_Lists.erase(List) == 0) {
        m_Host.Violation("a list of stored records released that is not the module's, or not any more");
        return;
    }
    Free(List);
}

void Store::ReportLeaks()
{
    if (!m_Lists.empty()) {
        m_Host.Violation("lists of stored records never released: " + std::to_string(m_Lists.size()));
    }
}

} // namespace fakehost

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Fault;
using fakehost::Host;
using fakehost::Quoted;
using fakehost::Shortage;

BOOL VQ_IsPersistentConfEnable(void)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    Here.Note(EntryKind::World, "VQ_IsPersistentConfEnable");
    return Here.Rows.Enabled ? TRUE : FALSE;
}

VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    Here.Note(EntryKind::World, "VQ_GetDbDataTransOp");
    return &Here.Rows.Conversions;
}

VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL VpnId, char *Text, VQ_SQL_CONF_OP Op, VQ_SQL_CONF_TBL Table)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const auto Row = static_cast<uint32_t>(VpnId);
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_SqliteDnsMasqConfOp", Row, Quoted{Text},
                                                static_cast<uint32_t>(Op), static_cast<uint32_t>(Table));
    if (Error.has_value()) {
        return *Error;
    }
    const int Result = Here.Rows.Carry(Row, Text, Op, Table);
    return Result < 0 ? Result : Here.Success("VQ_SqliteDnsMasqConfOp");
}

VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL Table)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    static constexpr std::array Known{Shortage::Empty, Shortage::Hollow};
    const std::optional<Fault> How =
        Here.EnterWith(Known, EntryKind::World, "VQ_SqliteGetDnsMasqConf", static_cast<uint32_t>(Table));
    if (!How.has_value()) {
        return Here.Rows.Read(Table);
    }
    return How->Lack() == Shortage::None ? nullptr : Here.Rows.MakeEmptyList(How->Lack() == Shortage::Hollow ? 1 : 0);
}

void VQ_SqliteConfListRelease(VQ_PersistentConfList *List)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    Here.Note(EntryKind::World, "VQ_SqliteConfListRelease");
    Here.Rows.Release(List);
}
