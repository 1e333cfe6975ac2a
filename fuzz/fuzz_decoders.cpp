// Every packet decoder, fed a body the way MQTTProtocol_Parse_Recv hands it out: at the start of a
// zero-filled 0xA00000-byte block, with outputs of the capacities the public header asks for.
// Input: [decoder selector][PUBLISH flags nibble][body...]
#include "FuzzSupport.h"

#include "MQTTProtocol.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {


constexpr size_t kBlockSize = 0xA00000;
constexpr int kTopicCapacity = 0xFFFF;

// The largest property block a decoder can meet, so every decoded width is bounded by it.
void CheckProperties(MQTTPROTOCOL_HDRPROPERTY** list, int count)
{
    REQUIRE((list == nullptr) == (count == 0));
    REQUIRE(count >= 0 && count <= 255);
    for (int i = 0; i < count; i++) REQUIRE(list[i]->nPropertyLen <= 254);
    Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list), count);
}

struct Outputs
{
    unsigned char reasonCode = 0;
    unsigned short identifier = 0;
    MQTTPROTOCOL_HDRCONNNECT connect{};
    MQTTPROTOCOL_USERINFO user{};
    MQTTPROTOCOL_HDRSUBSCRIBE options{};
    std::vector<char> topic = std::vector<char>(kTopicCapacity);
    std::vector<char> payload;
    int payloadLen = -1;
    MQTTPROTOCOL_HDRPROPERTY** properties = nullptr;
    int propertyCount = 0;
};

bool Decode(uint8_t selector, uint8_t publishFlags, const char* body, int bodyLen, Outputs& out)
{
    switch (selector % 9) {
    case 0:
        return MQTTProtocol_Parse_Connect(body, bodyLen, &out.connect, &out.user, &out.properties, &out.propertyCount);
    case 1:
        return MQTTProtocol_Parse_Connack(body, bodyLen, &out.reasonCode, &out.properties, &out.propertyCount);
    case 2: {
        MQTTPROTOCOL_FIXEDHEADER header{};
        header.byMsgType = 3;
        header.byMsgFlag = publishFlags & 0x0F;
        out.payload.resize(static_cast<size_t>(bodyLen) + 1);
        return MQTTProtocol_Parse_Publish(body, bodyLen, &header, out.topic.data(), &out.identifier, out.payload.data(),
                                          &out.payloadLen, &out.properties, &out.propertyCount);
    }
    case 3:
        return MQTTProtocol_Parse_Puback(body, bodyLen, &out.reasonCode, &out.identifier, &out.properties, &out.propertyCount);
    case 4:
        return MQTTProtocol_Parse_Subscribe(body, bodyLen, &out.identifier, out.topic.data(), &out.options,
                                            &out.properties, &out.propertyCount);
    case 5:
        return MQTTProtocol_Parse_Suback(body, bodyLen, &out.reasonCode, &out.identifier, &out.properties, &out.propertyCount);
    case 6:
        return MQTTProtocol_Parse_UNSubcribe(body, bodyLen, &out.identifier, out.topic.data(), &out.properties,
                                             &out.propertyCount);
    case 7:
        return MQTTProtocol_Parse_UNSuback(body, bodyLen, &out.reasonCode, &out.identifier, &out.properties,
                                           &out.propertyCount);
    default:
        return MQTTProtocol_Parse_Disconnect(body, bodyLen, &out.reasonCode, &out.properties, &out.propertyCount);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static char* block = static_cast<char*>(std::calloc(1, kBlockSize));
    mqttfuzz::InputReader in(data, size);
    const uint8_t selector = in.Byte();
    const uint8_t publishFlags = in.Byte();
    const uint8_t* body = in.Rest();
    const size_t bodyLen = in.Take(kBlockSize);
    std::memcpy(block, body, bodyLen);

    Outputs out;
    const bool decoded = Decode(selector, publishFlags, block, static_cast<int>(bodyLen), out);
    // Only a CONNECT of another protocol level is refused; every other body decodes.
    REQUIRE(decoded || (selector % 9 == 0 && MQTTProtocol_GetLastError(nullptr) == MQTTPROTOCOL_ERR_PARSE_VERSION));
    REQUIRE(out.payloadLen == -1 || (out.payloadLen > 0 && out.payloadLen <= static_cast<int>(bodyLen)));
    CheckProperties(out.properties, out.propertyCount);

    std::memset(block, 0, bodyLen);
    return 0;
}
