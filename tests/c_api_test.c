/* Compiled as C11: the public header serves a C host, and the exported functions and globals link
 * under their plain names. */
#include "MQTTProtocol.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(cond)                                                     \
    do {                                                                \
        if (!(cond)) {                                                  \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                                 \
        }                                                               \
    } while (0)

int main(void)
{
    CHECK(MQTTProtocol_GetLastError(NULL) == 0 && !MQTTProtocol_IsErrorOccur);

    const char body[2] = {0x00, 0x00};
    char packet[8];
    int length = 0;
    CHECK(MQTTProtocol_Packet_Header(packet, &length, 14, body, 2, 0));
    CHECK(length == 4 && memcmp(packet, "\xE0\x02\x00\x00", 4) == 0);

    CHECK(!MQTTProtocol_Packet_Header(NULL, &length, 14, body, 2, 0));
    CHECK(MQTTProtocol_IsErrorOccur);
    CHECK(MQTTProtocol_dwErrorCode == MQTTPROTOCOL_ERR_PACKET_ARGUMENT);

    MQTTPROTOCOL_HDRPROPERTY property;
    memset(&property, 0, sizeof(property));
    property.wValue = 7; /* the value union is anonymous */
    CHECK(property.byValue == 7);

    MQTTPROTOCOL_HDRPROPERTY** list = NULL;
    CHECK(Keel_OperatorMemory_Malloc((void***)&list, 2, (int)sizeof(MQTTPROTOCOL_HDRPROPERTY)));
    Keel_OperatorMemory_Free((void***)&list, 2);
    CHECK(list == NULL);

    printf("c api: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
