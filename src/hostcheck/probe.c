#include "probe.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lab.h"
#include "vqNetns.h"

enum { kBufferSize = 65536, kTextSize = 1024 * 1024, kHostBits = 32, kLineSize = 512 };

static bool IsSwitchedOff(void)
{
    return g_settings.probe != NULL && strcmp(g_settings.probe, "none") == 0;
}

bool AreRoutesOfKernel(void)
{
    return g_settings.probe == NULL;
}

/* Calls `work` in the namespace of the VPN, through the host's own switch. -1 if that fails. */
static int InNamespace(uint32_t vpnId, int (*work)(void *argument), void *argument)
{
    int saved = -1;
    if (vpnId != 0 && VQ_RtcNetNsSaveAndSwitch(vpnId, &saved) < 0) {
        return -1;
    }
    const int result = work(argument);
    if (vpnId != 0) {
        VQ_RtcNetNsSwitchToDefault(&saved);
    }
    return result;
}

typedef struct {
    uint32_t table;
    uint32_t target;
    int count;
} RouteQuery;

static void CountRoute(const struct nlmsghdr *message, RouteQuery *query)
{
    const struct rtmsg *route = NLMSG_DATA(message);
    const char *end = (const char *)message + message->nlmsg_len;
    const char *next = (const char *)route + NLMSG_ALIGN(sizeof(*route));
    uint32_t table = route->rtm_table;
    uint32_t target = 0;
    while ((size_t)(end - next) >= sizeof(struct rtattr)) {
        const struct rtattr *part = (const void *)next;
        if (part->rta_len < sizeof(*part) || part->rta_len > end - next) {
            break;
        }
        if (part->rta_type == RTA_TABLE) {
            memcpy(&table, next + sizeof(*part), sizeof(table));
        } else if (part->rta_type == RTA_DST) {
            memcpy(&target, next + sizeof(*part), sizeof(target));
        }
        next += RTA_ALIGN((size_t)part->rta_len);
        next = next < end ? next : end;
    }
    const bool isWanted = query->target == 0 || (ntohl(target) == query->target && route->rtm_dst_len == kHostBits);
    if (route->rtm_family == AF_INET && table == query->table && isWanted) {
        ++query->count;
    }
}

/* False at the end of the dump. */
static bool CountInPacket(const char *packet, ssize_t length, RouteQuery *query)
{
    size_t offset = 0;
    while (offset + sizeof(struct nlmsghdr) <= (size_t)length) {
        const struct nlmsghdr *message = (const void *)(packet + offset);
        if (message->nlmsg_len < sizeof(*message) || message->nlmsg_len > (size_t)length - offset) {
            return false;
        }
        offset += NLMSG_ALIGN(message->nlmsg_len);
        if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
            return false;
        }
        if (message->nlmsg_type == RTM_NEWROUTE) {
            CountRoute(message, query);
        }
    }
    return true;
}

static int CountInKernel(void *argument)
{
    static _Alignas(struct nlmsghdr) char packet[kBufferSize];
    RouteQuery *query = argument;
    struct {
        struct nlmsghdr header;
        struct rtmsg route;
    } request;
    memset(&request, 0, sizeof(request));
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.route.rtm_family = AF_INET;
    const int netlink = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    ssize_t length = netlink < 0 ? -1 : send(netlink, &request, sizeof(request), 0);
    while (length > 0) {
        length = recv(netlink, packet, sizeof(packet), 0);
        if (length > 0 && !CountInPacket(packet, length, query)) {
            break;
        }
    }
    if (netlink >= 0) {
        close(netlink);
    }
    return length > 0 ? query->count : -1;
}

/* Calls `take` with each line of the probe's output. -1 if the command fails. */
static int ReadProbe(void (*take)(const char *line, void *argument), void *argument)
{
    char line[kLineSize];
    FILE *output = popen(g_settings.probe, "re");
    while (output != NULL && fgets(line, sizeof(line), output) != NULL) {
        take(line, argument);
    }
    return output != NULL && pclose(output) == 0 ? 0 : -1;
}

typedef struct {
    uint32_t vpnId;
    RouteQuery query;
} ProbeQuery;

static void CountProbeLine(const char *line, void *argument)
{
    ProbeQuery *wanted = argument;
    unsigned vpn = 0;
    unsigned table = 0;
    unsigned bits = 0;
    char address[32] = "";
    struct in_addr target = {0};
    if (sscanf(line, "route %u %u %31[0-9.]/%u", &vpn, &table, address, &bits) == 4 && vpn == wanted->vpnId &&
        table == wanted->query.table && inet_aton(address, &target) != 0 &&
        (wanted->query.target == 0 || (ntohl(target.s_addr) == wanted->query.target && bits == kHostBits))) {
        ++wanted->query.count;
    }
}

int CountRoutes(uint32_t vpnId, uint32_t table, uint32_t target)
{
    ProbeQuery wanted = {vpnId, {table, target, 0}};
    if (IsSwitchedOff()) {
        return -1;
    }
    if (g_settings.probe != NULL) {
        return ReadProbe(CountProbeLine, &wanted) == 0 ? wanted.query.count : -1;
    }
    return InNamespace(vpnId, CountInKernel, &wanted.query);
}

static char s_rules[kTextSize];

static void AddText(const char *text)
{
    const size_t length = strlen(s_rules);
    snprintf(s_rules + length, sizeof(s_rules) - length, "%s", text);
}

static void AddRuleLine(const char *line, void *argument)
{
    (void)argument;
    if (strncmp(line, "rule ", 5) == 0) {
        AddText(line);
    }
}

static int ListRules(void *argument)
{
    (void)argument;
    char line[kLineSize];
    FILE *output = popen("nft --stateless list ruleset 2>/dev/null", "re");
    while (output != NULL && fgets(line, sizeof(line), output) != NULL) {
        AddText(line);
    }
    return output != NULL ? pclose(output) : -1;
}

const char *RulesText(void)
{
    s_rules[0] = '\0';
    if (IsSwitchedOff()) {
        return s_rules;
    }
    if (g_settings.probe != NULL) {
        ReadProbe(AddRuleLine, NULL);
    } else {
        InNamespace(0, ListRules, NULL);
        if (g_settings.vpnId != 0) {
            InNamespace(g_settings.vpnId, ListRules, NULL);
        }
    }
    return s_rules;
}
