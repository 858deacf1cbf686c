/* small_host LIBRARY EXPORTS: loads the module as a host does that has a C library and no more than the services below,
 * and calls what needs only these. It is for a C library that the test library and json-c cannot be built with here.
 * Every other import of the module is a function that ends this program, in a file that is made from imports.list. */
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vqCtrlAdvancedDns.h"
#include "vqFile.h"
#include "vqLog.h"
#include "vqMemory.h"
#include "vqSafeStr.h"

static int s_Failures;

#define EXPECT(Condition)                                                       \
    do {                                                                        \
        if (!(Condition)) {                                                     \
            fprintf(stderr, "small_host: line %d: %s\n", __LINE__, #Condition); \
            ++s_Failures;                                                       \
        }                                                                       \
    } while (0)

/* ---- The services ---- */

static int s_Allocated;
static char s_Path[64];
static char s_Text[256];

BOOL VQ_LogTest(uint32_t Module, uint32_t Level, BOOL Flag, const char *Function)
{
    (void)Module, (void)Level, (void)Flag, (void)Function;
    return FALSE;
}

void *VQ_AgentMemZeroAlloc(const size_t Size)
{
    ++s_Allocated;
    return calloc(1, Size);
}

void VQ_AgentMemFree(void *Pointer)
{
    --s_Allocated;
    free(Pointer);
}

size_t VQ_SNPrintf(char *Buffer, size_t Size, const char *Format, ...)
{
    va_list Args;
    va_start(Args, Format);
    const int Length = vsnprintf(Buffer, Size, Format, Args);
    va_end(Args);
    return Length < 0 ? Size : (size_t)Length;
}

int VQ_IPNum2IPStr(const uint32_t Ip, const uint32_t Flag, char *Buffer, uint32_t Size)
{
    EXPECT(Flag == 0);
    const int Length = snprintf(Buffer, Size, "%u.%u.%u.%u", Ip >> 24, (Ip >> 16) & 255, (Ip >> 8) & 255, Ip & 255);
    return Length < (int)Size ? 0 : -1;
}

int32_t VQ_WriteSyncWithFilePath(const char *Path, const char *Text, size_t Length)
{
    snprintf(s_Path, sizeof(s_Path), "%s", Path);
    snprintf(s_Text, sizeof(s_Text), "%.*s", (int)Length, Text);
    return 0;
}

/* ---- The module ---- */

static void *s_Module;

/* The address of a function of the module, for the caller to store in a pointer of its type. */
static void Resolve(const char *Name, void *Function)
{
    void *Address = dlsym(s_Module, Name);
    if (Address == NULL) {
        fprintf(stderr, "small_host: %s\n", dlerror());
        exit(1);
    }
    memcpy(Function, &Address, sizeof(Address));
}

static void TestExports(const char *List)
{
    FILE *File = fopen(List, "r");
    EXPECT(File != NULL);
    int Count = 0;
    char Name[128];
    void (*Function)(void);
    while (File != NULL && fscanf(File, "%127s", Name) == 1) {
        Resolve(Name, &Function);
        ++Count;
    }
    EXPECT(Count > 0);
    if (File != NULL) {
        fclose(File);
    }
}

/* The pattern is compiled by the C library. */
static void TestDomains(void)
{
    BOOL (*Validate)(const char *Domain);
    Resolve("VQCtrl_ValidateDomain", &Validate);
    char Long[256];
    memset(Long, 'a', sizeof(Long));
    memcpy(Long + 64, ".org", 5);
    EXPECT(Validate("www.example.com") == TRUE);
    EXPECT(Validate("a-b.c\\d.example") == TRUE);
    EXPECT(Validate(Long + 1) == TRUE);
    EXPECT(Validate(Long) == FALSE);
    EXPECT(Validate("www..com") == FALSE);
    EXPECT(Validate("www.example.c") == FALSE);
    EXPECT(Validate("www.exam_ple.com") == FALSE);
    EXPECT(Validate("www example.com") == FALSE);
    EXPECT(Validate("") == FALSE);
    EXPECT(Validate(NULL) == FALSE);
}

/* Memory of the host, an address, a text and a file. */
static void TestHosts(void)
{
    VQ_ERR_T (*SetHosts)(const VQ_CTRL_DNS_HOST_CONF *Hosts, const uint16_t Count, const uint32_t VpnId);
    Resolve("VQCtrl_SetDnsHostByDnsHostConf", &SetHosts);
    const VQ_CTRL_DNS_HOST_CONF Hosts[] = {{.Ip = 0x0a000001, .Domain = "one.example"},
                                           {.Ip = 0xc0a80102, .Domain = "two.example"}};
    EXPECT(SetHosts(Hosts, 2, 7) == 0);
    EXPECT(strcmp(s_Path, "/etc/kavel/dnsmasq/vpn_7/hosts") == 0);
    EXPECT(strcmp(s_Text, "10.0.0.1 one.example\n192.168.1.2 two.example\n") == 0);
    EXPECT(s_Allocated == 0);
}

/* A stream and errno of the C library. */
static void TestMissingPidFile(void)
{
    VQ_ERR_T (*GetPid)(uint32_t VpnId, pid_t * Pid);
    Resolve("VQCtrl_GetDnsServicePid", &GetPid);
    pid_t Pid = 5;
    EXPECT(GetPid(4294967295U, &Pid) == -2);
    EXPECT(Pid == 5);
}

int main(int Count, char **Arguments)
{
    if (Count != 3) {
        fprintf(stderr, "usage: small_host LIBRARY EXPORTS\n");
        return 2;
    }
    s_Module = dlopen(Arguments[1], RTLD_NOW);
    if (s_Module == NULL) {
        fprintf(stderr, "small_host: %s\n", dlerror());
        return 1;
    }
    TestExports(Arguments[2]);
    TestDomains();
    TestHosts();
    TestMissingPidFile();
    return s_Failures == 0 ? 0 : 1;
}
