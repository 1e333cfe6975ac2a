// DISCONNECT: a reason code and properties, always both.
#include "codec/CodecSupport.h"

using namespace mqtttest;

namespace {

TEST(Disconnect, BuildsAndDecodesGoldenBodies)
{
    const struct
    {
        uint8_t reasonCode;
        PropertyList properties;
        Bytes body;
    } rows[] = {
        {0x00, {}, {0x00, 0x00}},
        {0x8E, PropertyList().Integer(0x11, 4, 0), {0x8E, 0x05, 0x11, 0x00, 0x00, 0x00, 0x00}},
        {0x04,
         PropertyList().Integer(0x21, 2, 7).String(0x1F, "bye"),
         {0x04, 0x09, 0x21, 0x00, 0x07, 0x1F, 0x00, 0x03, 'b', 'y', 'e'}},
    };
    for (const auto& row : rows) {
        PropertyList properties = row.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_DisConnect(out, length, row.reasonCode, properties.Get(),
                                                            properties.Count());
                  }),
                  row.body);
        // Given a body length of 0, the standard's short form meaning reason code 0x00, the decoder reads
        // bytes 0 and 1 all the same.
        const auto decoded = Decoded(kDisconnect, row.body, 0);
        ASSERT_TRUE(decoded.result);
        EXPECT_EQ(decoded.reasonCode, row.reasonCode);
        ExpectProperties(decoded, row.properties);
    }
}

}  // namespace
