/* An agent of one's own that loads the advanced DNS module, and the order of its calls. Run with --apply, the program
 * gives the running one a file with the bytes of a message, as "vqctl encode" writes them. */
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include "advanced_dns.pb-c.h"
#include "host.h"
#include "vqCtrlAdvancedDns.h"

static const char *s_module = "/usr/lib/kavel/libvqAdvancedDns.so";
static const char *s_platform = "cpe";
static const char *s_socket = "/run/example-host.sock";
static const char *s_apply;
static bool s_isPop;

static void Check(bool isGood, const char *subject, const char *reason)
{
    if (!isGood) {
        fprintf(stderr, "example-host: %s: %s\n", subject, reason);
        exit(1);
    }
}

/* Stores the address of a function of the module in `function`, a pointer of its type. Loads the module at the first
 * call: at once with all that it imports, so that a missing service is reported now and not with the first message. */
static void Find(const char *name, void *function)
{
    static void *module;
    module = module != NULL ? module : dlopen(s_module, RTLD_NOW | RTLD_LOCAL);
    void *address = module != NULL ? dlsym(module, name) : NULL;
    Check(address != NULL, "module", address == NULL ? dlerror() : "");
    memcpy(function, &address, sizeof(address));
}

/* Directories that every user can search, and the files of the box's own instance. The module creates none of these. */
static void CreateBoxFiles(void)
{
    static const char kText[] = "resolv-file=/etc/kavel/dnsmasq/resolv.conf\naddn-hosts=/etc/kavel/dnsmasq/hosts\n"
                                "conf-dir=/etc/kavel/dnsmasq/dnsmasq.d/,*.conf\ncache-size=1000\ndomain-needed\n";
    umask(022); /* the module makes directories, too */
    mkdir(g_store, 0700);
    mkdir("/etc/kavel", 0755);
    mkdir("/etc/kavel/dnsmasq", 0755);
    mkdir("/etc/kavel/dnsmasq/dnsmasq.d", 0755);
    VQ_CreateFilePath("/etc/kavel/dnsmasq/hosts");
    VQ_CreateFilePath("/etc/kavel/dnsmasq/resolv.conf");
    const int result = VQ_WriteSyncWithFilePath("/etc/kavel/dnsmasq/dnsmasq.conf", kText, strlen(kText));
    Check(result >= 0, "/etc/kavel/dnsmasq/dnsmasq.conf", strerror(-result));
}

/* Platform, directories, recovery. The recovery launches instances: each is awaited before the next call for its VPN.
 */
static void Start(void)
{
    VQ_ERR_T (*initialize)(uint32_t vpnId);
    VQ_ERR_T (*recover)(void);
    void (*setPlatform)(void);
    Find(s_isPop ? "VQCtrl_AgentSetPOPAdvancedDnsOps" : "VQCtrl_AgentSetCPEAdvancedDnsOps", &setPlatform);
    Find("VQCtrl_DnsmasqConfInitByVpnId", &initialize);
    Find("VQCtrl_AgentRecoverAdvancedDnsConf", &recover);
    Find("VQCtrl_AdvancedDnsConfToJsonStr", &VQ_GetDbDataTransOp()->DnsmasqConfToStr);
    Find("VQCtrl_AdvancedDnsJsonStrToConf", &VQ_GetDbDataTransOp()->DnsmasqStrToConf);
    setPlatform();
    RepairPidFile(0);
    for (unsigned each = 1; each < g_vpnCount; ++each) {
        RepairPidFile(g_vpns[each].id);
        /* The module fills table 199 and adds no policy rule for it. */
        RunInVpn(g_vpns[each].id,
                 "sh -c 'ip rule show priority 199 | grep -q . || ip rule add priority 199 table 199'");
        initialize(g_vpns[each].id);
    }
    recover();
    VQ_PersistentConfList *list = VQ_SqliteGetDnsMasqConf(s_isPop ? VQ_SQL_CONF_POP_DNSMASQ : VQ_SQL_CONF_CPE_DNSMASQ);
    VQ_DnsmasqConfNode *node = NULL;
    Check(list != NULL, "store", strerror(ENOMEM));
    cds_list_for_each_entry(node, &list->Head, List)
    {
        (void)(node->Dnsmasq.Enable && AwaitPidFile(node->Dnsmasq.VpnId));
    }
    VQ_SqliteConfListRelease(list);
}

/* Applies a message and awaits the instance that it launches: the module finds instances by their pid files alone. */
static VQ_ERR_T ApplyBytes(const uint8_t *bytes, size_t size)
{
    VQ_ERR_T (*configure)(const VQ_CTRL_DNSMASQ_CONFIG_PB *message);
    VQ_ERR_T (*stop)(uint32_t vpnId);
    DnsmasqConf *cpe = s_isPop ? NULL : dnsmasq_conf__unpack(NULL, size, bytes);
    PopDnsmasqConf *pop = s_isPop ? pop_dnsmasq_conf__unpack(NULL, size, bytes) : NULL;
    const VQ_CTRL_DNSMASQ_CONFIG_PB messages[] = {{.DnsmasqPbCPE = cpe}, {.DnsmasqPbPOP = pop}};
    const uint32_t vpnId = cpe != NULL && cpe->has_vpnid ? cpe->vpnid : 0;
    VQ_ERR_T result = cpe == NULL && pop == NULL ? -EBADMSG : FindVpn(vpnId) == NULL ? -ENOENT : 0;
    Find("VQCtrl_ConfigAdvancedDns", &configure);
    Find("VQCtrl_DnsmasqStop", &stop);
    if (result == 0) {
        RepairPidFile(vpnId);
        result = configure(&messages[s_isPop]);
        const bool isEnabled = cpe != NULL ? cpe->enable : pop->enable;
        result = result >= 0 && isEnabled && !AwaitPidFile(vpnId) ? -ESRCH : result;
        result = result >= 0 && !isEnabled ? stop(vpnId) : result; /* the module lets it run if the rule is lost */
    }
    dnsmasq_conf__free_unpacked(cpe, NULL);
    pop_dnsmasq_conf__free_unpacked(pop, NULL);
    return result;
}

/* One message at a time, on the main thread, in the namespace of the box. */
static void Serve(int host)
{
    static uint8_t bytes[8 * 1024 * 1024];
    char text[kTextSize];
    struct sockaddr_un peer;
    for (;;) {
        socklen_t size = sizeof(peer);
        const ssize_t length = recvfrom(host, text, sizeof(text) - 1, 0, (struct sockaddr *)&peer, &size);
        text[length > 0 ? length : 0] = '\0';
        const int file = open(text, O_RDONLY | O_CLOEXEC);
        const ssize_t count = file < 0 ? -1 : read(file, bytes, sizeof(bytes));
        g_firstError[0] = '\0';
        const VQ_ERR_T result = count < 0 ? -errno : ApplyBytes(bytes, (size_t)count);
        close(file);
        const char *reason = result >= 0 ? "applied" : g_firstError[0] != '\0' ? g_firstError : strerror(-result);
        const size_t written = VQ_SNPrintf(text, sizeof(text), "%d %s", result, reason);
        sendto(host, text, written < sizeof(text) ? written : sizeof(text), 0, (struct sockaddr *)&peer, size);
    }
}

/* The answer is a result and, if that is negative, the first error that the module logged. */
static int Apply(int host, struct sockaddr_un *address)
{
    char path[2 * kTextSize] = ""; /* realpath needs 4096 bytes */
    char answer[kTextSize] = "";
    setsockopt(host, SOL_SOCKET, SO_RCVTIMEO, &(struct timeval){.tv_sec = 60}, sizeof(struct timeval));
    const bool isAnswered = realpath(s_apply, path) != NULL &&
                            bind(host, (struct sockaddr *)address, sizeof(address->sun_family)) == 0 &&
                            connect(host, (struct sockaddr *)address, sizeof(*address)) == 0 &&
                            send(host, path, strlen(path), 0) > 0 && recv(host, answer, sizeof(answer) - 1, 0) > 0;
    Check(isAnswered, s_apply, strerror(errno));
    puts(answer);
    return answer[0] == '-' ? 1 : 0;
}

int main(int count, char **arguments)
{
    static const char *const kNames[] = {"--module", "--platform", "--socket", "--store", "--c2p", "--apply"};
    const char **const values[] = {&s_module, &s_platform, &s_socket, &g_store, &g_c2p, &s_apply};
    for (int at = 1; at < count; at += 2) {
        bool isKnown = at + 1 < count && strcmp(arguments[at], "--vpn") == 0 && AddVpn(arguments[at + 1]);
        for (unsigned each = 0; !isKnown && each < 6 && at + 1 < count; ++each) {
            isKnown = strcmp(arguments[at], kNames[each]) == 0;
            *values[each] = isKnown ? arguments[at + 1] : *values[each];
        }
        Check(isKnown, arguments[at], "unknown option or bad value");
    }
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    VQ_SafeStrCopy(address.sun_path, sizeof(address.sun_path), s_socket);
    const int host = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s_apply != NULL) {
        return Apply(host, &address);
    }
    s_isPop = strcmp(s_platform, "pop") == 0;
    const int boxNamespace = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    VQ_SNPrintf(g_vpns[0].netns, kNameSize, "/proc/%d/fd/%d", getpid(), boxNamespace);
    CreateBoxFiles();
    unlink(s_socket); /* a message that comes before Serve waits in the new one */
    Check(bind(host, (struct sockaddr *)&address, sizeof(address)) == 0, s_socket, strerror(errno));
    Start();
    fprintf(stderr, "example-host: ready\n");
    Serve(host);
}
