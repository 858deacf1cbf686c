/* The messages that the kit applies, as the bytes that a controller sends. */
#ifndef HOSTCHECK_MESSAGE_H
#define HOSTCHECK_MESSAGE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

typedef struct {
    bool isPop;
    bool enables;
    bool isStored;
    uint32_t vpnId;
} MessagePlan;

/* What is in every message of the kit. The addresses are of those for documents: 192.0.2.1, .53 and .54. */
#define kMessageHost "hostcheck.example"
#define kMessageSource "mail.hostcheck.example"
#define kMessageTarget "mx.hostcheck.example"
#define kMessageDomain "forward.hostcheck.example"
enum { kMessagePreference = 10 };
#define kMessageAddress 0xC0000201U
#define kMessageServer 0xC0000235U
#define kMessageOtherServer 0xC0000236U
/* The local address of a POP. */
#define kMessageLocal 0x7F000035U

enum { kMessageSize = 512 };

/* Writes the message and returns its length. */
size_t EncodeMessage(const MessagePlan *plan, uint8_t bytes[kMessageSize]);

#endif
