/* Data-plane rules. A rule is one flat record: zero all of it, then set the fields that the rule needs. */
#ifndef VQ_RULE_H
#define VQ_RULE_H

#include "vqPlatform.h"
#include "vqRoute.h"

VQ_EXTERN_C_BEGIN

#define VQ_CONF_RULE_ENTRY_MAX 64
#define VQ_CONF_RULE_NAME_SIZE 64
#define VQ_CONF_RULE_NAT_IP_MAX 16

typedef enum VQ_ENUM32 {
    VQ_CONF_RULE_OP_TYPE_INSERT = 0,
    VQ_CONF_RULE_OP_TYPE_UPDATE = 1,
    VQ_CONF_RULE_OP_TYPE_DELETE = 2,
    VQ_CONF_RULE_OP_TYPE_ORDER = 3,
    VQ_CONF_RULE_OP_TYPE_GET_STATS_ALL = 4
} VQ_CONF_RULE_OP_TYPE;

typedef enum VQ_ENUM32 {
    VQ_CONF_RULE_TBL_TYPE_POLICY = 0,
    VQ_CONF_RULE_TBL_TYPE_SNAT = 1,
    VQ_CONF_RULE_TBL_TYPE_DNAT = 2,
    VQ_CONF_RULE_TBL_TYPE_DNS = 3,
    VQ_CONF_RULE_TBL_TYPE_DNSPROXY = 4,
    VQ_CONF_RULE_TBL_TYPE_AUTH = 5
} VQ_CONF_RULE_TBL_TYPE;

/* Operation codes of the rule service: table * 256 + operation. */
typedef enum VQ_ENUM32 {
    VQ_IMC_OP_TYPE_RULE_DNAT_INSERT = 512,
    VQ_IMC_OP_TYPE_RULE_DNAT_DELETE = 514,
    VQ_IMC_OP_TYPE_RULE_DNS_INSERT = 768,
    VQ_IMC_OP_TYPE_RULE_DNS_DELETE = 770
} VQ_IMC_OP_TYPE_RULE;

/* Ids of the DNAT rules in zone 0. Each rule belongs to one module of the agent. */
typedef enum VQ_ENUM32 {
    VQ_DNAT_TBL_ZONE0_RULE_ID_PROXY = 2,
    VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ = 3,
    VQ_DNAT_TBL_ZONE0_RULE_ID_AUTH_HTTP = 10,
    VQ_DNAT_TBL_ZONE0_RULE_ID_AUTH_HTTPS = 11,
    VQ_DNAT_TBL_ZONE0_RULE_ID_MAX = 12
} VQ_DNAT_TBL_ZONE0_RULE_ID;

typedef enum VQ_ENUM32 {
    VQ_CONF_DP_IF_TYPE_NORMAL = 0,
    VQ_CONF_DP_IF_TYPE_LAN = 1,
    VQ_CONF_DP_IF_TYPE_WAN = 2,
    VQ_CONF_DP_IF_TYPE_VQCONN_C2C = 3,
    VQ_CONF_DP_IF_TYPE_VQCONN_C2P = 4,
    VQ_CONF_DP_IF_TYPE_TRANSCONN = 5,
    VQ_CONF_DP_IF_TYPE_LOCAL = 6,
    VQ_CONF_DP_IF_TYPE_CONTINUE = 9,
    VQ_CONF_DP_IF_TYPE_DROP = 10
} VQ_CONF_DP_IF_TYPE;

typedef struct {
    uint16_t LowerPort;
    uint16_t UpperPort;
} VQ_CONF_RULE_PORT_RANGE;

typedef struct {
    uint8_t Type; /* VQ_CONF_DP_IF_TYPE */
    uint32_t Id;
} VQ_CONF_RULE_PORT;

typedef struct {
    uint32_t Id;
    uint8_t Type; /* VQ_CONF_DP_IF_TYPE */
    uint8_t Priority : 1;
} VQ_CONF_RULE_OUTPUT;

typedef struct {
    uint8_t SrcIpNum;
    uint8_t DstIpNum;
    uint8_t SrcPortNum;
    uint8_t DstPortNum;
    uint8_t ProtoNum;
    uint8_t DscpNum;
    uint8_t TransIdNum;
    uint8_t RegNum;
    uint8_t InPortNum;
    uint8_t OutPortNum;
    uint8_t SrcIpSetFlag : 1;
    uint8_t DstIpSetFlag : 1;
    uint8_t AcsNameFlag : 1;
    uint8_t InVpnFlag : 1;
    uint8_t InPolicyFlag : 1;
    uint8_t Pad;
    uint32_t InVpnId;
    uint32_t InPolicyId;
    union {
        VQ_CONF_IP_MASK SrcIp[VQ_CONF_RULE_ENTRY_MAX];
        char SrcIpSetName[VQ_CONF_RULE_NAME_SIZE];
    };
    union {
        VQ_CONF_IP_MASK DstIp[VQ_CONF_RULE_ENTRY_MAX];
        char DstIpSetName[VQ_CONF_RULE_NAME_SIZE];
    };
    char AcsName[VQ_CONF_RULE_NAME_SIZE];
    VQ_CONF_RULE_PORT_RANGE SrcPort[VQ_CONF_RULE_ENTRY_MAX];
    VQ_CONF_RULE_PORT_RANGE DstPort[VQ_CONF_RULE_ENTRY_MAX];
    uint8_t Proto[VQ_CONF_RULE_ENTRY_MAX];
    uint8_t Dscp[VQ_CONF_RULE_ENTRY_MAX];
    uint16_t TransId[VQ_CONF_RULE_ENTRY_MAX];
    uint32_t Reg[VQ_CONF_RULE_ENTRY_MAX];
    VQ_CONF_RULE_PORT InPort[VQ_CONF_RULE_ENTRY_MAX];
    VQ_CONF_RULE_PORT OutPort[VQ_CONF_RULE_ENTRY_MAX];
} VQ_CONF_RULE_MATCH;

typedef struct {
    union {
        uint32_t Ip[VQ_CONF_RULE_NAT_IP_MAX];
        uint8_t Ip6[VQ_CONF_RULE_NAT_IP_MAX][16];
    };
    uint8_t IpNum;
    uint8_t IpType; /* VQ_IN_ADDR_TYPE */
    union {
        uint16_t Port;
        VQ_CONF_RULE_PORT_RANGE PortRange;
    };
} VQ_CONF_RULE_ACTION_NAT;

typedef struct {
    uint8_t SnatFlag : 1;
    uint8_t DnatFlag : 1;
    uint8_t AcceFlag : 1;
    uint8_t AuthedFlag : 1;
    uint8_t SetRegFlag : 1;
    uint8_t SetVpnFlag : 1;
    uint8_t SetDscpFlag : 1;
    uint8_t OutputNum;
    uint8_t OutputStrategy;
    uint8_t SetDscpValue;
    uint32_t SetRegValue;
    uint32_t SetVpnId;
    uint32_t InboundRateLimitId;
    uint32_t OutboundRateLimitId;
    VQ_CONF_RULE_OUTPUT OutputArray[VQ_CONF_RULE_ENTRY_MAX];
    VQ_CONF_RULE_ACTION_NAT NatInfo;
} VQ_CONF_RULE_ACTIONS;

/* The padding is that of plain C, as the processor's ABI has it: host and module run in one process. TimeStamp is at
 * offset 40, with 4 bytes of implicit padding before it, where a uint64_t in a structure is aligned to 8 bytes (amd64,
 * arm64, armhf, s390x), and at offset 36 where it is aligned to 4 bytes (i386). The flags are the first ten bits of
 * their word: on a big-endian processor (s390x) the most significant ones. */
typedef struct {
    uint8_t OpType; /* VQ_CONF_RULE_OP_TYPE */
    uint8_t Table;  /* VQ_CONF_RULE_TBL_TYPE */
    uint8_t Zone;
    uint16_t : 0; /* the flags begin a new 16-bit word */
    uint16_t DualFlag : 1;
    uint16_t InvalidFlag : 1;
    uint16_t ExcluFlag : 1;
    uint16_t RelatedFlag : 1;
    uint16_t RevalFlag : 1;
    uint16_t L2Flag : 1;
    uint16_t L3Flag : 1;
    uint16_t PersistFlag : 1;
    uint16_t CtrlFlowFlag : 1;
    uint16_t NoGenFlowFlag : 1;
    int32_t RuleVer;
    uint32_t VpnId;
    uint32_t Id;    /* unique in its table and zone */
    uint32_t PreId; /* placement reference; the host defines the order */
    uint32_t PrePersistId;
    uint32_t CustomerId;
    uint8_t Pad[4];
    uint64_t TimeStamp; /* behind implicit padding, see above */
    VQ_CONF_RULE_MATCH Match;
    VQ_CONF_RULE_ACTIONS Actions;
} VQ_CONF_RULE;

VQ_ASSERT_ENUM32(VQ_CONF_RULE_OP_TYPE);
VQ_ASSERT_ENUM32(VQ_CONF_RULE_TBL_TYPE);
VQ_ASSERT_ENUM32(VQ_IMC_OP_TYPE_RULE);
VQ_ASSERT_ENUM32(VQ_DNAT_TBL_ZONE0_RULE_ID);
VQ_ASSERT_ENUM32(VQ_CONF_DP_IF_TYPE);
VQ_ASSERT_SIZE(VQ_CONF_RULE_PORT_RANGE, 4);
VQ_ASSERT_SIZE(VQ_CONF_RULE_PORT, 8);
VQ_ASSERT_SIZE(VQ_CONF_RULE_OUTPUT, 8);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, Pad, 11);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, InVpnId, 12);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, SrcIp, 20);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, DstIp, 20 + VQ_CONF_RULE_ENTRY_MAX * 20);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, AcsName, 20 + 2 * VQ_CONF_RULE_ENTRY_MAX * 20);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, SrcPort, 20 + 2 * VQ_CONF_RULE_ENTRY_MAX * 20 + VQ_CONF_RULE_NAME_SIZE);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, DstPort,
                 offsetof(VQ_CONF_RULE_MATCH, SrcPort) + sizeof(uint32_t) * VQ_CONF_RULE_ENTRY_MAX);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, Proto,
                 offsetof(VQ_CONF_RULE_MATCH, DstPort) + sizeof(uint32_t) * VQ_CONF_RULE_ENTRY_MAX);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, TransId,
                 offsetof(VQ_CONF_RULE_MATCH, Proto) + sizeof(uint8_t) * 2 * VQ_CONF_RULE_ENTRY_MAX);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, Reg,
                 offsetof(VQ_CONF_RULE_MATCH, TransId) + sizeof(uint16_t) * VQ_CONF_RULE_ENTRY_MAX);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_MATCH, InPort,
                 offsetof(VQ_CONF_RULE_MATCH, Reg) + sizeof(uint32_t) * VQ_CONF_RULE_ENTRY_MAX);
VQ_ASSERT_SIZE(VQ_CONF_RULE_MATCH,
               offsetof(VQ_CONF_RULE_MATCH, InPort) + sizeof(VQ_CONF_RULE_PORT) * 2 * VQ_CONF_RULE_ENTRY_MAX);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_ACTION_NAT, IpNum, sizeof(uint8_t) * 16 * VQ_CONF_RULE_NAT_IP_MAX);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_ACTION_NAT, PortRange, VQ_CONF_RULE_NAT_IP_MAX * 16 + 2);
VQ_ASSERT_SIZE(VQ_CONF_RULE_ACTION_NAT, VQ_CONF_RULE_NAT_IP_MAX * 16 + 8);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_ACTIONS, OutputNum, 1);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_ACTIONS, SetRegValue, 4);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_ACTIONS, OutputArray, 20);
VQ_ASSERT_OFFSET(VQ_CONF_RULE_ACTIONS, NatInfo, 20 + VQ_CONF_RULE_ENTRY_MAX * 8);
VQ_ASSERT_SIZE(VQ_CONF_RULE_ACTIONS, offsetof(VQ_CONF_RULE_ACTIONS, NatInfo) + sizeof(VQ_CONF_RULE_ACTION_NAT));
VQ_ASSERT_OFFSET(VQ_CONF_RULE, RuleVer, 8);
VQ_ASSERT_OFFSET(VQ_CONF_RULE, VpnId, 12);
VQ_ASSERT_OFFSET(VQ_CONF_RULE, Id, 16);
VQ_ASSERT_OFFSET(VQ_CONF_RULE, CustomerId, 28);
#ifdef __i386__
VQ_ASSERT_OFFSET(VQ_CONF_RULE, TimeStamp, 36);
#else
VQ_ASSERT_OFFSET(VQ_CONF_RULE, TimeStamp, 40);
#endif
VQ_ASSERT_OFFSET(VQ_CONF_RULE, Match, offsetof(VQ_CONF_RULE, TimeStamp) + 8);
VQ_ASSERT_OFFSET(VQ_CONF_RULE, Actions, offsetof(VQ_CONF_RULE, Match) + sizeof(VQ_CONF_RULE_MATCH));

/* The DNS module builds two rules. All fields that are not shown are 0.
 *
 * The steering rule of VPN 7, whose customer is 42: the DNS traffic of the VPN's clients goes to the box itself, where
 * the instance listens. It names no protocol and no port: the DNS table is for UDP and TCP port 53. It is added with
 * operation VQ_IMC_OP_TYPE_RULE_DNS_INSERT and deleted by zone 0, id 9, customer 42 and VQ_IMC_OP_TYPE_RULE_DNS_DELETE.
 * A deletion does not name the VPN: that is the id less 2.
 *
 * - OpType = 0: VQ_CONF_RULE_OP_TYPE_INSERT
 * - Table = 3: VQ_CONF_RULE_TBL_TYPE_DNS
 * - VpnId = 7
 * - Id = 9: the id of the VPN plus 2. Ids wrap around: VPN 4294967295 has 1
 * - PreId = 1
 * - CustomerId = 42: of VQ_GetCustomerIdByVpnId, or of VQ_PlatformGetCustomerId if the host does not know the VPN's
 * - Match.OutPortNum = 1
 * - Match.OutPort[0].Type = 6: VQ_CONF_DP_IF_TYPE_LOCAL
 * - Actions.OutputNum = 1
 * - Actions.OutputArray[0].Type = 6: VQ_CONF_DP_IF_TYPE_LOCAL
 * - Actions.OutputArray[0].Priority = 1
 *
 * A POP has this rule for VPN 0, and a second one: queries over UDP that come in on a CPE-to-POP connection get the
 * address 10.88.0.1 as their destination. It is added with VQ_IMC_OP_TYPE_RULE_DNAT_INSERT and deleted by zone 0, id 3,
 * customer 0 and VQ_IMC_OP_TYPE_RULE_DNAT_DELETE.
 *
 * - OpType = 0: VQ_CONF_RULE_OP_TYPE_INSERT
 * - Table = 2: VQ_CONF_RULE_TBL_TYPE_DNAT
 * - Id = 3: VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ
 * - PreId = 1
 * - Match.DstPortNum = 1
 * - Match.DstPort[0] = 53 to 53
 * - Match.ProtoNum = 1
 * - Match.Proto[0] = 17: UDP
 * - Match.InPortNum = 1
 * - Match.InPort[0].Type = 4: VQ_CONF_DP_IF_TYPE_VQCONN_C2P
 * - Actions.DnatFlag = 1
 * - Actions.NatInfo.Ip[0] = 0x0A580001
 * - Actions.NatInfo.IpNum = 1
 * - Actions.NatInfo.IpType = 0: VQ_IN_ADDR_TYPE_IPV4
 *
 * The rule of VPN 0 is added first and deleted first. If that fails, the other one is not added or not deleted. The two
 * are for different packets: the first for those of the box's LANs, the second for those of CPE-to-POP connections. In
 * a data plane where both match a packet, the second should decide, because it names the address. */

/* Installs `Rule` and replaces a rule with the same id in the same table and zone. `Rule` stays the property of the
 * caller. `Op` is the operation code (VQ_IMC_OP_TYPE_RULE). The host defines the meaning of the two flags; the DNS
 * module passes FALSE and TRUE. 0 or more on success, a negated errno value on failure. */
VQ_ERR_T VQ_RtcRuleConfAdd(VQ_CONF_RULE *Rule, uint16_t Op, BOOL Flag1, BOOL Flag2);

/* Removes the rule with this zone, id and customer. `Op` is the operation code (VQ_IMC_OP_TYPE_RULE) and names the
 * table. `Flag` corresponds to `Flag2` of the add. 0 or more on success. Negative on failure, also if there is no such
 * rule. */
VQ_ERR_T VQ_RtcRuleConfDel(uint8_t Zone, uint32_t RuleId, uint32_t CustomerId, uint16_t Op, BOOL Flag);

/* The customer id of the box itself. */
uint32_t VQ_PlatformGetCustomerId(void);

/* Stores the id of the customer that owns the VPN in `CustomerId`. 0 or more on success. Negative if the host does not
 * know the VPN or its customer; then `CustomerId` is not changed. */
VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t VpnId, uint32_t *CustomerId);

VQ_EXTERN_C_END

#endif
