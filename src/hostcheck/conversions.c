/* The module's two conversions of a record, as the checks of the store need them. They look at nothing but the VPN. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "entries.h"
#include "vqCtrlAdvancedDns.h"
#include "vqErrno.h"
#include "vqMemory.h"

enum { kTextSize = 256 };

Conversions g_conversions;

char *VQCtrl_AdvancedDnsConfToJsonStr(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    ++g_conversions.toText;
    char *text = VQ_AgentMemAlloc(kTextSize);
    if (text != NULL) {
        const int length = snprintf(text, kTextSize, kRowFormat, Conf->VpnId, "record");
        strcpy(text + length, "\"}");
    }
    return text;
}

static bool IsZeroed(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const unsigned char *bytes = (const unsigned char *)Conf;
    return bytes[0] == 0 && memcmp(bytes, bytes + 1, sizeof(*Conf) - 1) == 0;
}

/* Length and mark of the text are kept in the first host. */
VQ_ERR_T VQCtrl_AdvancedDnsJsonStrToConf(VQ_CTRL_DNSMASQ_CONF *Conf, const char *DnsmasqStr)
{
    unsigned vpnId = 0;
    char mark[64] = "";
    ++g_conversions.toRecord;
    g_conversions.foundUnzeroed |= !IsZeroed(Conf);
    if (sscanf(DnsmasqStr, "{\"VpnId\": %u, \"Mark\": \"%63[^\"]", &vpnId, mark) != 2) {
        return VQ_ERR_INVALID;
    }
    Conf->VpnId = vpnId;
    Conf->DnsHostNum = 1;
    Conf->DnsHost[0].Ip = (uint32_t)strlen(DnsmasqStr);
    memcpy(Conf->DnsHost[0].Domain, mark, sizeof(mark));
    return VQ_ERR_OK;
}
