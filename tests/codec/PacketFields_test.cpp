// The checks every body builder and decoder makes first (PacketFields.h): a builder without an output
// buffer or an output length, and a decoder without a body, fail with their side's code before
// writing anything.
#include "TestSupport.h"

#include <functional>

namespace {

// Every output any builder or decoder could write, preset to one pattern.
struct Out
{
    char buffer[32];
    int length;
    MQTTPROTOCOL_HDRCONNNECT header;  // read and stamped by the CONNECT builder
    MQTTPROTOCOL_USERINFO user;
    MQTTPROTOCOL_FIXEDHEADER fixedHeader;
    MQTTPROTOCOL_HDRSUBSCRIBE options;
    unsigned short id;
    unsigned char reason;
    char text[32];
    char payload[32];
    int payloadLen;
    MQTTPROTOCOL_HDRPROPERTY** list;
    int count;
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

// Each given a null body.
using Decoder = bool (*)(Out& o);
const Decoder kDecoders[] = {
    [](Out& o) { return MQTTProtocol_Parse_Connect(nullptr, 16, &o.header, &o.user, &o.list, &o.count); },
    [](Out& o) { return MQTTProtocol_Parse_Connack(nullptr, 3, &o.reason, &o.list, &o.count); },
    [](Out& o) { return MQTTProtocol_Parse_Disconnect(nullptr, 2, &o.reason, &o.list, &o.count); },
    [](Out& o) {
        return MQTTProtocol_Parse_Publish(nullptr, 8, &o.fixedHeader, o.text, &o.id, o.payload, &o.payloadLen, &o.list,
                                          &o.count);
    },
    [](Out& o) { return MQTTProtocol_Parse_Puback(nullptr, 4, &o.reason, &o.id, &o.list, &o.count); },
    [](Out& o) { return MQTTProtocol_Parse_Subscribe(nullptr, 9, &o.id, o.text, &o.options, &o.list, &o.count); },
    [](Out& o) { return MQTTProtocol_Parse_Suback(nullptr, 4, &o.reason, &o.id, &o.list, &o.count); },
    [](Out& o) { return MQTTProtocol_Parse_UNSubcribe(nullptr, 8, &o.id, o.text, &o.list, &o.count); },
    [](Out& o) { return MQTTProtocol_Parse_UNSuback(nullptr, 4, &o.reason, &o.id, &o.list, &o.count); },
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
    for (size_t i = 0; i < std::size(kDecoders); i++) {
        SCOPED_TRACE(::testing::Message() << "decoder " << i);
        ExpectRefusedUntouched(MQTTPROTOCOL_ERR_PARSE_ARGUMENT, kDecoders[i]);
    }
}

}  // namespace
