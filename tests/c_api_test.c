/* Compiled as C11: the public header serves a C host, and the exported functions and globals link
 * under their plain names. What the calls do is the C++ tests' to check; here each family is reached. */
#include "MQTTProtocol.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                                              \
        }                                                                            \
    } while (0)

int main(void)
{
    CHECK(MQTTProtocol_GetLastError(NULL) == 0 && MQTTProtocol_dwErrorCode == 0 && !MQTTProtocol_IsErrorOccur);
    const char body[2] = {0x00, 0x00};
    char packet[8];
    int length = 0;
    CHECK(MQTTProtocol_Packet_Header(packet, &length, 14, body, 2, 0));
    CHECK(length == 4 && memcmp(packet, "\xE0\x02\x00\x00", 4) == 0);

    MQTTPROTOCOL_HDRPROPERTY property;
    memset(&property, 0, sizeof(property));
    property.wValue = 7; /* the value union is anonymous */
    CHECK(property.byValue == 7);

    /* The receive side, in compact mode: a PUBLISH and a PINGREQ in one piece, out again in order. */
    CHECK(!MQTTProtocol_Parse_BodyMode(2) && MQTTProtocol_dwErrorCode == MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    CHECK(MQTTProtocol_Parse_Init(1) && MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_COMPACT));
    CHECK(MQTTProtocol_Parse_Insert("c-host"));
    const char stream[7] = {(char)0x30, 0x03, 'a', 'b', 'c', (char)0xC0, 0x00};
    CHECK(MQTTProtocol_Parse_Send("c-host", stream, 7));
    TAVRIN_HOPPER_TASKEVENT** ready = NULL;
    int readyCount = 0;
    CHECK(MQTTProtocol_Parse_WaitEvent(0, 0) && MQTTProtocol_Parse_GetPool(0, &ready, &readyCount));
    CHECK(readyCount == 1 && strcmp(ready[0]->tszClientAddr, "c-host") == 0 && ready[0]->nPktCount == 2);
    Keel_OperatorMemory_Free((void***)&ready, readyCount);
    MQTTPROTOCOL_FIXEDHEADER received;
    char* packetBody = NULL;
    int bodyLength = 0;
    CHECK(MQTTProtocol_Parse_Recv("c-host", &received, &packetBody, &bodyLength));
    CHECK(received.byMsgType == 3 && bodyLength == 3 && memcmp(packetBody, "abc", 3) == 0);
    free(packetBody);
    CHECK(MQTTProtocol_Parse_Recv("c-host", &received, &packetBody, &bodyLength));
    CHECK(received.byMsgType == 12 && packetBody == NULL && bodyLength == 0);

    CHECK(MQTTProtocol_Parse_ActiveEvent(0) && MQTTProtocol_Parse_Delete("c-host"));
    CHECK(MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_BLOCK) && MQTTProtocol_Parse_Destory());
    printf("c api: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
