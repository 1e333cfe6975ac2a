// A builder without an output buffer or an output length, and a decoder without a body, fail with
// their side's code before writing anything.
#include "TestSupport.h"

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

constexpr uint64_t kBuilder = MQTTPROTOCOL_ERR_PACKET_ARGUMENT;
constexpr uint64_t kDecoder = MQTTPROTOCOL_ERR_PARSE_ARGUMENT;

// Builders get the buffer and length given; decoders ignore them and get a null body.
struct NullCase
{
    uint64_t code;
    bool (*call)(char* buffer, int* length, Out& o);
};

const NullCase kNullCases[] = {
    {kBuilder,
     [](char* b, int* l, Out& o) { return MQTTProtocol_Packet_REQConnect(b, l, &o.header, "c", nullptr, 0, "u", "p"); }},
    {kBuilder, [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REPConnect(b, l, 1, 0, nullptr, 0); }},
    {kBuilder, [](char* b, int* l, Out&) { return MQTTProtocol_Packet_DisConnect(b, l, 0, nullptr, 0); }},
    {kBuilder, [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REQPublish(b, l, "t", "p", 1, 1, nullptr, 0); }},
    {kBuilder, [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REPPublish(b, l, 1, 0, nullptr, 0); }},
    {kBuilder,
     [](char* b, int* l, Out& o) { return MQTTProtocol_Packet_REQSubscribe(b, l, 1, "t", &o.options, nullptr, 0); }},
    {kBuilder, [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REPComm(b, l, 1, 0, nullptr, 0); }},
    {kBuilder, [](char* b, int* l, Out&) { return MQTTProtocol_Packet_REQUNSubscribe(b, l, 1, "t", nullptr, 0); }},
    {kDecoder,
     [](char*, int*, Out& o) { return MQTTProtocol_Parse_Connect(nullptr, 16, &o.header, &o.user, &o.list, &o.count); }},
    {kDecoder,
     [](char*, int*, Out& o) { return MQTTProtocol_Parse_Connack(nullptr, 3, &o.reason, &o.list, &o.count); }},
    {kDecoder,
     [](char*, int*, Out& o) { return MQTTProtocol_Parse_Disconnect(nullptr, 2, &o.reason, &o.list, &o.count); }},
    {kDecoder,
     [](char*, int*, Out& o) {
         return MQTTProtocol_Parse_Publish(nullptr, 8, &o.fixedHeader, o.text, &o.id, o.payload, &o.payloadLen, &o.list,
                                           &o.count);
     }},
    {kDecoder,
     [](char*, int*, Out& o) { return MQTTProtocol_Parse_Puback(nullptr, 4, &o.reason, &o.id, &o.list, &o.count); }},
    {kDecoder,
     [](char*, int*, Out& o) {
         return MQTTProtocol_Parse_Subscribe(nullptr, 9, &o.id, o.text, &o.options, &o.list, &o.count);
     }},
    {kDecoder,
     [](char*, int*, Out& o) { return MQTTProtocol_Parse_Suback(nullptr, 4, &o.reason, &o.id, &o.list, &o.count); }},
    {kDecoder,
     [](char*, int*, Out& o) { return MQTTProtocol_Parse_UNSubcribe(nullptr, 8, &o.id, o.text, &o.list, &o.count); }},
    {kDecoder,
     [](char*, int*, Out& o) { return MQTTProtocol_Parse_UNSuback(nullptr, 4, &o.reason, &o.id, &o.list, &o.count); }},
};

void ExpectRefusedUntouched(const NullCase& nullCase, bool giveBuffer)
{
    Out outputs;
    std::memset(&outputs, 0x5A, sizeof(outputs));
    const Out before = outputs;
    MQTTProtocol_dwErrorCode = 0;
    EXPECT_FALSE(nullCase.call(giveBuffer ? outputs.buffer : nullptr, giveBuffer ? nullptr : &outputs.length, outputs));
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), nullCase.code);
    EXPECT_EQ(std::memcmp(&outputs, &before, sizeof(outputs)), 0) << "nothing written";
}

TEST(NullArguments, FailWithTheirSidesCodeAndWriteNothing)
{
    for (size_t i = 0; i < std::size(kNullCases); i++) {
        SCOPED_TRACE(::testing::Message() << "row " << i);
        ExpectRefusedUntouched(kNullCases[i], false);
        if (kNullCases[i].code == kBuilder) {
            ExpectRefusedUntouched(kNullCases[i], true);
        }
    }
}

}  // namespace
