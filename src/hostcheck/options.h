/* The command line of vq-hostcheck. */
#ifndef HOSTCHECK_OPTIONS_H
#define HOSTCHECK_OPTIONS_H

#include <stdbool.h>
#include <stdint.h>

typedef struct {
    const char *vpn; /* as it was given; null: the host decides */
    uint32_t vpnId;
    const char *platform; /* "cpe", "pop"; null: the host decides */
    const char *only;
    const char *probe;
    const char *apply;
    const char *at;      /* "init", "recover" */
    const char *library; /* the library of the checks */
    const char *module;  /* the module itself */
    int timeoutMs;       /* time limit of one check */
    int startMs;         /* how long the host may take until it calls */
    const char *const *host;
} Options;

/* Fills the options, or prints help, version or list and ends the program. */
void ParseOptions(int argc, char **argv, Options *options);

#endif
