// Builds a DISCONNECT-shaped packet with two properties, then reads it back field by field:
// the fixed header, the remaining length and the property block.
#include <MQTTProtocol.h>

#include <cstdio>
#include <cstring>

namespace {

void PrintProperty(const MQTTPROTOCOL_HDRPROPERTY& property)
{
    std::printf("  property 0x%02X, %d bytes: ", property.byPropertyID, property.nPropertyLen);
    switch (property.nPropertyLen) {
    case 4:
        std::printf("%u\n", property.dwValue);
        break;
    case 2:
        std::printf("%u\n", property.wValue);
        break;
    case 1:
        std::printf("%u\n", property.byValue);
        break;
    default:  // a string property: two-byte big-endian length, then the text
        std::printf("\"%.*s\"\n", property.nPropertyLen - 2, property.tszValue + 2);
        break;
    }
}

}  // namespace

int main()
{
    // Session Expiry Interval (four-byte integer), then Reason String (a string: its length prefix
    // lives in tszValue). A string takes the rest of its block when decoded, so it goes last.
    MQTTPROTOCOL_HDRPROPERTY expiry = {};
    expiry.byPropertyID = 0x11;
    expiry.nPropertyLen = 4;
    expiry.dwValue = 3600;
    MQTTPROTOCOL_HDRPROPERTY reason = {};
    const char text[] = "server shutting down";
    reason.byPropertyID = 0x1F;
    reason.tszValue[0] = 0;
    reason.tszValue[1] = static_cast<char>(sizeof(text) - 1);
    std::memcpy(reason.tszValue + 2, text, sizeof(text) - 1);
    reason.nPropertyLen = 2 + static_cast<int>(sizeof(text) - 1);
    MQTTPROTOCOL_HDRPROPERTY* records[] = {&expiry, &reason};
    MQTTPROTOCOL_HDRPROPERTY** list = records;

    // Body: reason code 0x8B (server shutting down), then the property block.
    char body[300];
    body[0] = static_cast<char>(0x8B);
    int bodyLen = 1;
    if (!m_Packet.MQTTProtocol_Packet_Property(body + 1, &bodyLen, &list, 2)) {
        std::fprintf(stderr, "property block not built: 0x%llx\n",
                     (unsigned long long)MQTTProtocol_GetLastError(nullptr));
        return 1;
    }
    char packet[320];
    int packetLen = 0;
    if (!MQTTProtocol_Packet_Header(packet, &packetLen, 14, body, bodyLen, 0)) {
        std::fprintf(stderr, "header not built: 0x%llx\n", (unsigned long long)MQTTProtocol_GetLastError(nullptr));
        return 1;
    }
    std::printf("DISCONNECT packet, %d bytes:", packetLen);
    for (int i = 0; i < packetLen; i++) std::printf(" %02X", static_cast<unsigned char>(packet[i]));
    std::printf("\n");

    MQTTPROTOCOL_FIXEDHEADER header;
    std::memcpy(&header, packet, 1);
    int remaining = 0;
    int headerSize = 1;
    if (!m_Parse.MQTTProtocol_Parse_Length(packet + 1, packetLen - 1, &remaining, &headerSize)) {
        std::fprintf(stderr, "remaining length not decoded: 0x%llx\n",
                     (unsigned long long)MQTTProtocol_GetLastError(nullptr));
        return 1;
    }
    const char* decodedBody = packet + headerSize;
    std::printf("type %u, flags %u, remaining length %d, fixed header %d bytes\n", header.byMsgType, header.byMsgFlag,
                remaining, headerSize);
    std::printf("reason code 0x%02X, property block %u bytes\n", static_cast<unsigned char>(decodedBody[0]),
                static_cast<unsigned char>(decodedBody[1]));

    MQTTPROTOCOL_HDRPROPERTY** decoded = nullptr;
    int decodedCount = 0;
    m_Parse.MQTTProtocol_Parse_Property(decodedBody + 2, static_cast<unsigned char>(decodedBody[1]), &decoded,
                                        &decodedCount);
    for (int i = 0; i < decodedCount; i++) {
        PrintProperty(*decoded[i]);
    }
    Keel_OperatorMemory_Free(reinterpret_cast<void***>(&decoded), decodedCount);
    return 0;
}
