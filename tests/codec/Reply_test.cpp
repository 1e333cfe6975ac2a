// Acknowledgement bodies: PUBACK, PUBREC, PUBREL and PUBCOMP share one builder and one decoder;
// SUBACK and UNSUBACK share a builder and have a decoder each. Every built row is read back; where
// builder and decoder disagree on purpose, the row says what the decoder makes of the bytes.
#include "TestSupport.h"

using namespace mqtttest;

namespace {

using ReplyBuilder = bool (*)(char*, int*, unsigned short, unsigned char, MQTTPROTOCOL_HDRPROPERTY***, int);
using ReplyDecoder = bool (*)(const char*, int, unsigned char*, unsigned short*, MQTTPROTOCOL_HDRPROPERTY***, int*);

const ReplyBuilder kPuback = MQTTProtocol_Packet_REPPublish;
const ReplyBuilder kComm = MQTTProtocol_Packet_REPComm;
const ReplyDecoder kReadPuback = MQTTProtocol_Parse_Puback;
const ReplyDecoder kReadSuback = MQTTProtocol_Parse_Suback;
const ReplyDecoder kReadUnsuback = MQTTProtocol_Parse_UNSuback;

struct Decoded
{
    ReplyDecoder decode;
    uint16_t packetID;
    uint8_t reasonCode;
    PropertyList properties;
};

void ExpectDecoded(const Bytes& bytes, int bodyLen, const Decoded& expected)
{
    SCOPED_TRACE(::testing::PrintToString(bytes));
    const ReceivedBody body(bytes);
    unsigned char reasonCode = 0xEE;
    unsigned short packetID = 0xBEEF;
    DecodedProperties properties;
    ASSERT_TRUE(expected.decode(body.Data(), bodyLen, &reasonCode, &packetID, &properties.list, &properties.count));
    EXPECT_EQ(packetID, expected.packetID);
    EXPECT_EQ(reasonCode, expected.reasonCode);
    ExpectProperties(properties, expected.properties);
}

TEST(Reply, BuildsGoldenBodiesAndReadsThemBack)
{
    const struct
    {
        const char* name;
        ReplyBuilder build;
        uint16_t packetID;
        uint8_t reasonCode;
        PropertyList properties;
        int count;
        Bytes body;
        Decoded decoded;
    } rows[] = {
        {"PUBACK", kPuback, 0x1234, 0x10, {}, 0, {0x12, 0x34, 0x10, 0x00}, {kReadPuback, 0x1234, 0x10, {}}},
        {"PUBACK, negative count", kPuback, 0x1234, 0x10, {}, -1, {0x12, 0x34, 0x10}, {kReadPuback, 0x1234, 0x10, {}}},
        {"PUBACK with properties", kPuback, 0x1234, 0x10, PropertyList().String(0x1F, "fine"), 1,
         {0x12, 0x34, 0x10, 0x07, 0x1F, 0x00, 0x04, 'f', 'i', 'n', 'e'},
         {kReadPuback, 0x1234, 0x10, PropertyList().String(0x1F, "fine")}},
        // A zero identifier is left out; the decoder, which always expects one, reads the reason code as
        // its high byte.
        {"PUBACK, identifier 0", kPuback, 0, 0x10, {}, 0, {0x10, 0x00}, {kReadPuback, 0x1000, 0x00, {}}},
        {"PUBACK, identifier 0, negative count", kPuback, 0, 0x10, {}, -1, {0x10}, {kReadPuback, 0x1000, 0x00, {}}},
        // SUBACK and UNSUBACK: the property block is always written, and before the reason code.
        {"UNSUBACK", kComm, 7, 0x02, PropertyList().Integer(0x21, 2, 10), 1, {0x00, 0x07, 0x03, 0x21, 0x00, 0x0A, 0x02},
         {kReadUnsuback, 7, 0x02, PropertyList().Integer(0x21, 2, 10)}},
        {"UNSUBACK, negative count", kComm, 1, 0x80, {}, -1, {0x00, 0x01, 0x00, 0x80}, {kReadUnsuback, 1, 0x80, {}}},
        // Not read back as 0: the decoder takes 00 11 for the identifier and reads on behind the body.
        {"UNSUBACK, identifier 0", kComm, 0, 0x11, {}, 0, {0x00, 0x11}, {kReadUnsuback, 0x0011, 0x00, {}}},
        // The SUBACK decoder reads the property length from byte 0, the identifier's high byte.
        {"SUBACK", kComm, 1, 0x80, {}, 0, {0x00, 0x01, 0x00, 0x80}, {kReadSuback, 1, 0x01, {}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        PropertyList properties = row.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return row.build(out, length, row.packetID, row.reasonCode, properties.Get(), row.count);
                  }),
                  row.body);
        ExpectDecoded(row.body, static_cast<int>(row.body.size()), row.decoded);
    }
}

TEST(Reply, DecodersReadTheirOwnPositions)
{
    // The reason code is byte 2 whatever the length: after a two-byte body, the byte behind it.
    ExpectDecoded({0x00, 0x05, 0x97}, 2, {kReadPuback, 5, 0x97, {}});
    // Properties only when the length is above 3.
    ExpectDecoded({0x00, 0x05, 0x10, 0x03, 0x21, 0x00, 0x0A}, 3, {kReadPuback, 5, 0x10, {}});
    ExpectDecoded({0x00, 0x07, 0x00, 0x02}, 4, {kReadSuback, 7, 0x07, {}});
    // From an identifier of 256 on, its high byte is a property length.
    ExpectDecoded({0x01, 0x02, 0x21, 0x00, 0x0A}, 5,
                  {kReadSuback, 0x0102, 0x21, PropertyList().Integer(0x02, 4, 0x21000A00)});
    // One reason code: the ones behind it are ignored.
    ExpectDecoded({0x00, 0x02, 0x00, 0x80, 0x92}, 5, {kReadUnsuback, 2, 0x80, {}});
}

}  // namespace
