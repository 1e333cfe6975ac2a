#include "TestSupport.h"

using namespace mqtttest;

namespace {

struct DisconnectVector
{
    uint8_t reasonCode;
    PropertyList properties;
    Bytes body;
    PropertySummary decodedProperties;
};

const DisconnectVector kDisconnects[] = {
    {0x00, {}, {0x00, 0x00}, {}},
    {0x8E, PropertyList().Integer(0x11, 4, 0), {0x8E, 0x05, 0x11, 0x00, 0x00, 0x00, 0x00}, {{0x11, 0}}},
    {0x04, PropertyList().String(0x1F, "bye"), {0x04, 0x06, 0x1F, 0x00, 0x03, 'b', 'y', 'e'}, {{0x1F, 5}}},
};

TEST(Disconnect, BuildsAndDecodesGoldenBodies)
{
    for (const auto& vector : kDisconnects) {
        PropertyList properties = vector.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_DisConnect(out, length, vector.reasonCode, properties.Get(),
                                                            properties.Count());
                  }),
                  vector.body);

        ExpectReasonAndProperties(MQTTProtocol_Parse_Disconnect, vector.body, vector.reasonCode,
                                  vector.decodedProperties);
    }
}

TEST(Disconnect, WrappedBodyIsTheFourBytePacket)
{
    char body[4];
    int bodyLen = 0;
    ASSERT_TRUE(MQTTProtocol_Packet_DisConnect(body, &bodyLen, 0x00, nullptr, 0));
    char packet[8];
    int packetLen = 0;
    ASSERT_TRUE(MQTTProtocol_Packet_Header(packet, &packetLen, 14, body, bodyLen, 0));
    EXPECT_EQ(mqtttest::ToBytes(packet, packetLen), (Bytes{0xE0, 0x02, 0x00, 0x00}));
}

TEST(Disconnect, ShortFormsAreNotRecognised)
{
    // The standard's empty body would mean reason 0x00; this decoder reads bytes 0 and 1 regardless.
    const ReceivedBody body(Bytes{0x04, 0x00, 0x7F});
    unsigned char reasonCode = 0xEE;
    DecodedProperties decoded;
    ASSERT_TRUE(MQTTProtocol_Parse_Disconnect(body.Data(), 0, &reasonCode, &decoded.list, &decoded.count));
    EXPECT_EQ(reasonCode, 0x04);
    EXPECT_EQ(decoded.list, nullptr);
}

}  // namespace
