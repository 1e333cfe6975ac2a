// The checks every body builder and decoder makes first (PacketFields.h): a builder without an output
// buffer or an output length, and a decoder without a body, fail with their side's code before
// writing anything.
#include "codec/CodecSupport.h"

#include <functional>

namespace {

// Every output a builder could write, preset to one pattern.
struct Out
{
    char buffer[32];
    int length;
    MQTTPROTOCOL_HDRCONNNECT header;  // read and stamped by the CONNECT builder
    MQTTPROTOCOL_HDRSUBSCRIBE options;
};

using Builder = bool (*)(char* buffer, int* length, Out& o);
const Builder kBuilders[] = {
    [](char* b, int* l, Out&) { return MQTTProtocol_Packet_Header(b, l, 12, nullptr, 0, 0); },
    [](char* b, int* l, Out&) { return m_Packet.MQTTProtocol_Packet_Property(b, l, nullptr, 0); },
    [](char* b, int* l, Out& o) { return MQTTProtocol_Packet_REQConnect(b, l, &o.header, "c", nullptr, 0, "u", "p"); },
    [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REPConnect(b, l, 1, 0, nullptr, 0); },
    [](char* b, int* l, Out&) { return MQTTProtocol_Packet_DisConnect(b, l, 0, nullptr, 0); },
    [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REQPublish(b, l, "t", "p", 1, 1, nullptr, 0); },
    [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REPPublish(b, l, 1, 0, nullptr, 0); },
    [](char* b, int* l, Out& o) { return MQTTProtocol_Packet_REQSubscribe(b, l, 1, "t", &o.options, nullptr, 0); },
    [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REPComm(b, l, 1, 0, nullptr, 0); },
    [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REQUNSubscribe(b, l, 1, "t", nullptr, 0); },
};

void ExpectRefusedUntouched(uint64_t code, const std::function<bool(Out&)>& call)
{
    Out outputs;
    std::memset(&outputs, 0x5A, sizeof(outputs));
    const Out before = outputs;
    MQTTProtocol_dwErrorCode = 0;
    EXPECT_FALSE(call(outputs));
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), code);
    EXPECT_EQ(std::memcmp(&outputs, &before, sizeof(outputs)), 0) << "nothing written";
}

TEST(NullArguments, FailWithTheirSidesCodeAndWriteNothing)
{
    for (size_t i = 0; i < std::size(kBuilders); i++) {
        SCOPED_TRACE(::testing::Message() << "builder " << i);
        const Builder build = kBuilders[i];
        ExpectRefusedUntouched(MQTTPROTOCOL_ERR_PACKET_ARGUMENT, [&](Out& o) { return build(nullptr, &o.length, o); });
        ExpectRefusedUntouched(MQTTPROTOCOL_ERR_PACKET_ARGUMENT, [&](Out& o) { return build(o.buffer, nullptr, o); });
    }
    // The nine packet decoders; every output they take is preset to a marker.
    for (int decoder = 0; decoder < mqttdecode::kPropertyBlock; decoder++) {
        SCOPED_TRACE(::testing::Message() << "decoder " << decoder);
        mqttdecode::Run refused = mqttdecode::Unwritten(decoder, 16, true);
        refused.code = MQTTPROTOCOL_ERR_PARSE_ARGUMENT;
        EXPECT_TRUE(mqttdecode::Decode(decoder, 0x32, nullptr, 16, true) == refused) << "refused, nothing written";
    }
}

}  // namespace
