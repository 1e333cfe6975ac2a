// The reply body SUBACK and UNSUBACK share, read back with the UNSUBACK decoder, which follows the
// wire layout (the SUBACK decoder's own positions: Subscribe_test.cpp).
#include "codec/CodecSupport.h"

using namespace mqtttest;

namespace {

TEST(REPComm, BuildsGoldenBodiesAndReadsThemBack)
{
    // The property block is always written, and before the reason code.
    EXPECT_EQ(BuiltReply(MQTTProtocol_Packet_REPComm, 7, 0x02, PropertyList().Integer(0x21, 2, 10), 1),
              (Bytes{0x00, 0x07, 0x03, 0x21, 0x00, 0x0A, 0x02}));
    EXPECT_EQ(BuiltReply(MQTTProtocol_Packet_REPComm, 1, 0x80, {}, -1), (Bytes{0x00, 0x01, 0x00, 0x80}));
    // Identifier 0 is left out; the decoder, which always expects one, takes 00 11 for it and reads on
    // behind the body.
    EXPECT_EQ(BuiltReply(MQTTProtocol_Packet_REPComm, 0, 0x11, {}, 0), (Bytes{0x00, 0x11}));
    ExpectReply(kUnsuback, {0x00, 0x11}, 2, 0x0011, 0x00);
}

}  // namespace
