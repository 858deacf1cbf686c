#include "message.h"

#include <string.h>

/* Fields of the protobuf wire format: a key, which is the number of the field and a wire type, and the value. */
enum { kWireNumber = 0, kWireBytes = 2, kWireBits = 3, kNumberBits = 7, kMore = 0x80, kOperationReboot = 1 };

typedef struct {
    uint8_t bytes[kMessageSize];
    size_t length;
} Encoded;

static void PutNumber(Encoded *encoded, uint32_t number)
{
    while (number >= kMore) {
        encoded->bytes[encoded->length++] = (uint8_t)(number | kMore);
        number >>= kNumberBits;
    }
    encoded->bytes[encoded->length++] = (uint8_t)number;
}

static void PutNumberField(Encoded *encoded, unsigned field, uint32_t number)
{
    PutNumber(encoded, field << kWireBits | kWireNumber);
    PutNumber(encoded, number);
}

static void PutBytesField(Encoded *encoded, unsigned field, const void *bytes, size_t length)
{
    PutNumber(encoded, field << kWireBits | kWireBytes);
    PutNumber(encoded, (uint32_t)length);
    memcpy(encoded->bytes + encoded->length, bytes, length);
    encoded->length += length;
}

static void PutTextField(Encoded *encoded, unsigned field, const char *text)
{
    PutBytesField(encoded, field, text, strlen(text));
}

static void PutMessageField(Encoded *encoded, unsigned field, const Encoded *message)
{
    PutBytesField(encoded, field, message->bytes, message->length);
}

static void PutItems(Encoded *encoded)
{
    Encoded host = {.length = 0};
    PutTextField(&host, 1, kMessageHost);
    PutNumberField(&host, 2, kMessageAddress);
    PutMessageField(encoded, 3, &host);
    Encoded server = {.length = 0};
    PutNumberField(&server, 1, kMessageServer);
    PutMessageField(encoded, 4, &server);
    Encoded mail = {.length = 0};
    PutTextField(&mail, 1, kMessageTarget);
    PutTextField(&mail, 2, kMessageSource);
    PutNumberField(&mail, 3, kMessagePreference);
    PutMessageField(encoded, 5, &mail);
    Encoded forward = {.length = 0};
    PutTextField(&forward, 1, kMessageDomain);
    PutNumberField(&forward, 2, kMessageServer);
    PutNumberField(&forward, 2, kMessageOtherServer);
    PutMessageField(encoded, 6, &forward);
}

size_t EncodeMessage(const MessagePlan *plan, uint8_t bytes[kMessageSize])
{
    Encoded encoded = {.length = 0};
    PutNumberField(&encoded, 1, plan->enables ? 1 : 0);
    if (plan->isPop) {
        PutNumberField(&encoded, 2, kMessageServer);
        PutNumberField(&encoded, 2, kMessageOtherServer);
        PutNumberField(&encoded, 3, kMessageLocal);
        PutNumberField(&encoded, 4, plan->isStored ? 1 : 0);
    } else {
        PutNumberField(&encoded, 2, kOperationReboot);
        PutItems(&encoded);
        PutNumberField(&encoded, 7, plan->isStored ? 1 : 0);
        PutNumberField(&encoded, 9, plan->vpnId);
    }
    memcpy(bytes, encoded.bytes, encoded.length);
    return encoded.length;
}
