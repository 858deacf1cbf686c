/* An agent of one's own that loads the advanced DNS module, and the order of its calls. Run with --apply, the program
 * gives the running one a file with the bytes of a message, as "vqctl encode" writes them. */
#include <dlfcn.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "advanced_dns.pb-c.h"
#include "host.h"
#include "vqCtrlAdvancedDns.h"

/* A function of the module, with its type, and what connect() and bind() want. */
#define MODULE(Name) ((__typeof__(Name) *)(uintptr_t)Find(#Name))
#define ADDRESS (const struct sockaddr *)&kAddress, sizeof(kAddress)

static const struct sockaddr_un kAddress = {.sun_family = AF_UNIX, .sun_path = "/run/example-host.sock"};
static const char *s_module = "/usr/lib/kavel/libvqAdvancedDns.so";
static const char *s_platform = "cpe";
static const char *s_apply;
static bool s_isPop;

static void Check(bool isGood, const char *subject, const char *reason)
{
    if (!isGood) {
        fprintf(stderr, "example-host: %s: %s\n", subject, reason);
        exit(1);
    }
}

/* Loads the module at the first call: at once with all that it imports, so that a missing service is reported now. */
static void *Find(const char *name)
{
    static void *module;
    module = module != NULL ? module : dlopen(s_module, RTLD_NOW | RTLD_LOCAL);
    void *address = module != NULL ? dlsym(module, name) : NULL;
    Check(address != NULL, "module", address == NULL ? dlerror() : "");
    return address;
}

/* Directories that every user can search, and the files of the box's own instance. The module creates none of these. */
static void CreateBoxFiles(void)
{
    static const char kCode[] =
        "set -e\nmkdir -p '%s' /etc/kavel/dnsmasq/dnsmasq.d\ncd /etc/kavel/dnsmasq\ntouch hosts resolv.conf\n"
        "cat >dnsmasq.conf <<TEXT\nresolv-file=$PWD/resolv.conf\naddn-hosts=$PWD/hosts\n"
        "conf-dir=$PWD/dnsmasq.d/,*.conf\ncache-size=1000\ndomain-needed\nTEXT\n";
    umask(022); /* the module makes directories, too */
    Check(RunInVpn(0, kCode, g_store) == 0, "/etc/kavel/dnsmasq", "cannot be set up");
}

static void Start(void)
{
    (s_isPop ? MODULE(VQCtrl_AgentSetPOPAdvancedDnsOps) : MODULE(VQCtrl_AgentSetCPEAdvancedDnsOps))();
    VQ_GetDbDataTransOp()->DnsmasqConfToStr = MODULE(VQCtrl_AdvancedDnsConfToJsonStr);
    VQ_GetDbDataTransOp()->DnsmasqStrToConf = MODULE(VQCtrl_AdvancedDnsJsonStrToConf);
    for (const Vpn *vpn = g_vpns; vpn < g_vpns + g_vpnCount; ++vpn) {
        RepairPidFile(vpn->id);
        if (vpn->id != 0) {
            /* The module fills table 199 and adds no policy rule for it. */
            RunInVpn(vpn->id, "ip rule show priority 199 | grep -q . || ip rule add priority 199 table 199");
            MODULE(VQCtrl_DnsmasqConfInitByVpnId)(vpn->id);
        }
    }
    MODULE(VQCtrl_AgentRecoverAdvancedDnsConf)(); /* launches an instance for each stored record */
    for (unsigned each = 0; each < g_vpnCount; ++each) {
        AwaitPidFile(g_vpns[each].id);
    }
}

static VQ_ERR_T ApplyBytes(const uint8_t *bytes, size_t size)
{
    DnsmasqConf *cpe = s_isPop ? NULL : dnsmasq_conf__unpack(NULL, size, bytes);
    PopDnsmasqConf *pop = s_isPop ? pop_dnsmasq_conf__unpack(NULL, size, bytes) : NULL;
    const VQ_CTRL_DNSMASQ_CONFIG_PB messages[] = {{.DnsmasqPbCPE = cpe}, {.DnsmasqPbPOP = pop}};
    const uint32_t vpnId = cpe != NULL && cpe->has_vpnid ? cpe->vpnid : 0;
    VQ_ERR_T result = cpe == NULL && pop == NULL ? -EBADMSG : FindVpn(vpnId) == NULL ? -ENOENT : 0;
    if (result == 0) {
        RepairPidFile(vpnId);
        result = MODULE(VQCtrl_ConfigAdvancedDns)(&messages[s_isPop]);
        const bool isEnabled = cpe != NULL ? cpe->enable : pop->enable;
        result = result >= 0 && isEnabled && !AwaitPidFile(vpnId) ? -ESRCH : result;
        /* With its rule lost the module lets an instance run. */
        result = result >= 0 && !isEnabled ? MODULE(VQCtrl_DnsmasqStop)(vpnId) : result;
    }
    dnsmasq_conf__free_unpacked(cpe, NULL);
    pop_dnsmasq_conf__free_unpacked(pop, NULL);
    return result;
}

/* Answers the path of a message with its result and, if that is negative, the first error that the module logged. */
static void Serve(int peer)
{
    static uint8_t bytes[8 * 1024 * 1024];
    char path[kTextSize] = "";
    recv(peer, path, sizeof(path) - 1, 0);
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t count = file < 0 ? -1 : read(file, bytes, sizeof(bytes));
    g_firstError[0] = '\0';
    const VQ_ERR_T result = count < 0 ? -errno : ApplyBytes(bytes, (size_t)count);
    const char *reason = g_firstError[0] != '\0' ? g_firstError : strerror(-result);
    dprintf(peer, "%d %s\n", result, result >= 0 ? "applied" : reason);
    close(file);
    close(peer);
}

static int Apply(int host)
{
    char answer[kTextSize] = "";
    char *path = realpath(s_apply, NULL);
    const bool isSent = path != NULL && connect(host, ADDRESS) == 0 && send(host, path, strlen(path), 0) > 0;
    free(path);
    Check(isSent && recv(host, answer, sizeof(answer) - 1, 0) > 0, s_apply, strerror(errno));
    fputs(answer, stdout);
    return answer[0] == '-' ? 1 : 0;
}

int main(int count, char **arguments)
{
    static const char *const kNames[] = {"--vpn", "--module", "--platform", "--store", "--c2p", "--apply"};
    const char *vpn = NULL;
    const char **const values[] = {&vpn, &s_module, &s_platform, &g_store, &g_c2p, &s_apply};
    for (int at = 1; at < count; at += 2) {
        unsigned option = 0;
        for (; option < 6 && strcmp(arguments[at], kNames[option]) != 0; ++option) {
        }
        Check(option < 6 && at + 1 < count, arguments[at], "unknown option, or no value");
        *values[option] = arguments[at + 1];
        Check(option > 0 || AddVpn(vpn), arguments[at + 1], "is no VPN");
    }
    s_isPop = strcmp(s_platform, "pop") == 0;
    const int host = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (s_apply != NULL) {
        return Apply(host);
    }
    unlink(kAddress.sun_path); /* a message that comes before Serve waits in the new one */
    Check(bind(host, ADDRESS) == 0 && listen(host, 8) == 0, kAddress.sun_path, strerror(errno));
    signal(SIGPIPE, SIG_IGN); /* of a client that does not wait for its answer */
    CreateBoxFiles();
    Start();
    fprintf(stderr, "example-host: ready\n");
    for (;;) { /* one message at a time, on the main thread, in the namespace of the box */
        Serve(accept4(host, NULL, NULL, SOCK_CLOEXEC));
    }
}
