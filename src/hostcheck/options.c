#include "options.h"

#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "promise.h"

enum { kExitUsage = 2, kMillisecondsPerSecond = 1000, kCheckSeconds = 10, kStartSeconds = 30, kSecondsMax = 3600 };

static const char kHelp[] =
    "Holds an agent to the promises of the host interface.\n"
    "\n"
    "usage: vq-hostcheck [options] -- AGENT [ARGUMENT...]\n"
    "\n"
    "Starts the agent, in whose arguments %m is replaced by the path of a library that it loads in place of the\n"
    "module. The library calls the agent's services and prints what it finds as TAP. Run it as root, on a box or in\n"
    "namespaces where no DNS is served: files, routes, rules, rows and processes of the VPN are changed and removed.\n"
    "\n"
    "  --vpn ID           the VPN to use, which has a namespace; 0: the box itself (default: the first that the agent\n"
    "                     initialises)\n"
    "  --platform NAME    cpe or pop (default: what the agent sets)\n"
    "  --only PREFIX      only the promises whose id begins so: --only process.\n"
    "  --probe COMMAND    command that prints the routes and rules in force, for data planes other than the kernel's:\n"
    "                       route VPN TABLE ADDRESS/LENGTH ...    rule dns ZONE ID CUSTOMER ...\n"
    "                     \"none\": they cannot be seen\n"
    "  --apply COMMAND    command that has the agent apply the message in the file %f, as a controller encodes it. "
    "Adds\n"
    "                     a second phase, in which the agent loads the module itself\n"
    "  --at init|recover  when the agent's store and data plane are ready: when it initialises the VPN (default), or\n"
    "                     only when it recovers stored records or passes on a message\n"
    "  --module FILE      the module (default: beside this program, or the installed one)\n"
    "  --library FILE     the library that is loaded in its place (the same)\n"
    "  --timeout SECONDS  time limit of one check (10)\n"
    "  --start SECONDS    time limit of the agent's start (30)\n"
    "  --list             print the promises and exit\n"
    "  --version          print the version and exit\n"
    "  --help             print this text and exit\n"
    "\n"
    "Exit status: 0 all that must be kept is kept, 1 something is broken, 2 the agent never called or was not "
    "started.\n";

static void Fail(const char *subject, const char *problem)
{
    fprintf(stderr, "vq-hostcheck: %s: %s\n", subject, problem);
    exit(kExitUsage);
}

static uint32_t NumberOf(const char *name, const char *text, unsigned long most)
{
    char *end = NULL;
    errno = 0;
    const unsigned long number = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || number > most) {
        Fail(name, "is not a number, or too large");
    }
    return (uint32_t)number;
}

static const char *OneOf(const char *name, const char *text, const char *first, const char *second)
{
    if (strcmp(text, first) != 0 && strcmp(text, second) != 0) {
        Fail(name, "is neither of its values");
    }
    return text;
}

static void PrintPromises(void)
{
    for (PromiseId promise = 0; promise < kPromiseCount; ++promise) {
        const Promise *told = &kPromises[promise];
        printf("%s (%s)\n  promised:  %s:%d: %s\n  otherwise: %s\n", told->id, told->isMust ? "must" : "should",
               told->header, told->line, told->promise, told->otherwise);
    }
    exit(EXIT_SUCCESS);
}

enum { kInstalledSize = PATH_MAX * 2 };

/* Writes the path of the file beside this program, or else of the installed one. */
static const char *Installed(const char *name, char path[kInstalledSize])
{
    char directory[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", directory, sizeof(directory) - 1);
    directory[length > 0 ? length : 0] = '\0';
    char *slash = strrchr(directory, '/');
    if (slash != NULL) {
        *slash = '\0';
    }
    snprintf(path, kInstalledSize, "%s/%s", directory, name);
    if (access(path, R_OK) != 0) {
        snprintf(path, kInstalledSize, "%s/" KAVEL_MODULE_DIR "/%s", directory, name);
    }
    return path;
}

static void SetOption(Options *options, int option, const char *value)
{
    switch (option) {
    case 'v':
        options->vpn = value;
        options->vpnId = NumberOf("--vpn", value, UINT32_MAX);
        break;
    case 'p':
        options->platform = OneOf("--platform", value, "cpe", "pop");
        break;
    case 'o':
        options->only = value;
        break;
    case 'b':
        options->probe = value;
        break;
    case 'a':
        options->apply = value;
        break;
    case 'w':
        options->at = OneOf("--at", value, "init", "recover");
        break;
    case 'm':
        options->module = value;
        break;
    case 'l':
        options->library = value;
        break;
    case 't':
        options->timeoutMs = (int)NumberOf("--timeout", value, kSecondsMax) * kMillisecondsPerSecond;
        break;
    default:
        options->startMs = (int)NumberOf("--start", value, kSecondsMax) * kMillisecondsPerSecond;
        break;
    }
}

static void PrintAndExit(const char *text)
{
    fputs(text, stdout);
    exit(EXIT_SUCCESS);
}

void ParseOptions(int argc, char **argv, Options *options)
{
    static const struct option kOptions[] = {
        {"vpn", required_argument, NULL, 'v'},     {"platform", required_argument, NULL, 'p'},
        {"only", required_argument, NULL, 'o'},    {"probe", required_argument, NULL, 'b'},
        {"apply", required_argument, NULL, 'a'},   {"at", required_argument, NULL, 'w'},
        {"module", required_argument, NULL, 'm'},  {"library", required_argument, NULL, 'l'},
        {"timeout", required_argument, NULL, 't'}, {"start", required_argument, NULL, 's'},
        {"list", no_argument, NULL, 'L'},          {"version", no_argument, NULL, 'V'},
        {"help", no_argument, NULL, 'h'},          {NULL, 0, NULL, 0}};
    *options = (Options){.only = "", .at = "init"};
    options->timeoutMs = kCheckSeconds * kMillisecondsPerSecond;
    options->startMs = kStartSeconds * kMillisecondsPerSecond;
    static char library[kInstalledSize];
    static char module[kInstalledSize];
    int found = 0;
    while ((found = getopt_long(argc, argv, "+", kOptions, NULL)) != -1) {
        if (found == 'h') {
            PrintAndExit(kHelp);
        } else if (found == 'V') {
            PrintAndExit("vq-hostcheck " KAVEL_VERSION "\n");
        } else if (found == 'L') {
            PrintPromises();
        } else if (found == '?') {
            exit(kExitUsage);
        }
        SetOption(options, found, optarg);
    }
    if (optind >= argc) {
        Fail("AGENT", "is missing; see --help");
    }
    options->host = (const char *const *)(argv + optind);
    options->library = options->library != NULL ? options->library : Installed("libvqHostCheck.so", library);
    options->module = options->module != NULL ? options->module : Installed("libvqAdvancedDns.so", module);
}
