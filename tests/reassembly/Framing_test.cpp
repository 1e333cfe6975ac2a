// The receive framing as hosts meet it: the pieces given to Send, what the last call returns and
// leaves in the error state, then what Recv hands out, oldest first, and why it stops: the cases the
// departures name. Random streams and their cuttings are compared with the reference model in
// Differential_test.
#include "reassembly/ReceiveSupport.h"

namespace {

using mqtttest::Bytes;
using mqtttest::Concat;
using mqtttest::Counting;
using mqtttest::Wire;

struct Packet
{
    uint8_t first;
    Bytes body;
    bool hasBody = true;  // false: a PINGREQ cut as an input of its own, handed out without a block
};

struct Case
{
    const char* name;
    std::vector<Bytes> pieces;  // every piece before the last is taken without a failure
    std::vector<Packet> taken;  // as many as the last Send leaves counted ready
    uint64_t then;              // the code of the Recv after them
    uint64_t lastCode = 0;      // 0: the last Send leaves the flag false; else the flag true and this code
    bool lastResult = true;
};

// The bytes cut at the given piece sizes, the rest as the last piece.
std::vector<Bytes> Pieces(const Bytes& bytes, std::vector<size_t> sizes)
{
    std::vector<Bytes> pieces;
    auto at = bytes.begin();
    for (size_t size : sizes) {
        pieces.emplace_back(at, at + static_cast<long>(size));
        at += static_cast<long>(size);
    }
    pieces.emplace_back(at, bytes.end());
    return pieces;
}

constexpr uint64_t kEmpty = MQTTPROTOCOL_ERR_PARSE_EMPTY;
constexpr uint64_t kWaiting = MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE;
constexpr uint64_t kBadFlags = MQTTPROTOCOL_ERR_PARSE_HDRFLAGS;

class ReceiveFraming : public mqtttest::ReceiveTest
{
protected:
    void Run(const Case& c)
    {
        SCOPED_TRACE(c.name);
        mqtttest::Session session;
        for (size_t i = 0; i + 1 < c.pieces.size(); i++) {
            ASSERT_TRUE(session.Send(c.pieces[i])) << "piece " << i;
            ASSERT_FALSE(MQTTProtocol_IsErrorOccur) << "piece " << i;
        }
        MQTTProtocol_dwErrorCode = 0;
        EXPECT_EQ(session.Send(c.pieces.back()), c.lastResult);
        EXPECT_EQ(MQTTProtocol_IsErrorOccur, c.lastCode != 0);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, c.lastCode);
        EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), static_cast<int>(c.taken.size()));
        for (const Packet& packet : c.taken) {
            const mqtttest::Taken taken = mqtttest::Take(session.c_str(), true);
            ASSERT_TRUE(taken.ok);
            EXPECT_EQ(taken.first, packet.first);
            EXPECT_EQ(taken.hasBody, packet.hasBody);
            EXPECT_EQ(taken.body, packet.body);
            EXPECT_TRUE(taken.zeroBeyondBody);
        }
        EXPECT_FALSE(mqtttest::Take(session.c_str()).ok);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, c.then);
    }
};

TEST_F(ReceiveFraming, CutsPiecesAsHostsMeetThem)
{
    const Bytes whole = Counting(MQTTPROTOCOL_PACKET_BLOCK_SIZE, 3);
    std::vector<Case> cases = {
        // Fewer than four bytes wait, so a two-byte DISCONNECT is queued only once further bytes make 4;
        // the four are cut as one input, the PINGREQ behind it as an input of its own.
        {"two-byte DISCONNECT", {{0xE0, 0x00}}, {}, kWaiting},
        {"two-byte DISCONNECT, then a PINGREQ", {{0xE0, 0x00}, {0xC0, 0x00}}, {{0xE0, {}}, {0xC0, {}, false}}, kEmpty},
        // A body filling the whole block, its buffer growing as the bytes come: pieces that end on, just
        // past and far past each size.
        {"a body filling the whole block, in pieces",
         Pieces(Concat({Wire(0x30, whole), {0xC0, 0x00}}), {6, 65530, 1, 65536, 3000000}),
         {{0x30, whole}, {0xC0, {}, false}},
         kEmpty},
        {"bad SUBSCRIBE after a PUBLISH: the PUBLISH stays, the rest is lost",
         {Concat({Wire(0x30, Counting(7)), Wire(0x80, Counting(9)), Wire(0x30, Counting(3))})},
         {{0x30, Counting(7)}},
         kEmpty,
         kBadFlags},
    };
    // Alone, with a PINGREQ behind: only flags 2 are taken, otherwise nothing of the piece is queued.
    for (uint8_t first : {0x82, 0xA2, 0x80, 0xA3}) {
        const bool good = (first & 0x0F) == 2;
        cases.push_back({"SUBSCRIBE or UNSUBSCRIBE alone",
                         {Concat({Wire(first, Counting(9)), {0xC0, 0x00}})},
                         good ? std::vector<Packet>{{first, Counting(9)}, {0xC0, {}, false}} : std::vector<Packet>{},
                         kEmpty,
                         good ? 0 : kBadFlags,
                         good});
    }
    for (const Case& c : cases) Run(c);
}

// A packet with a four-byte remaining length (2,097,152 body bytes or more) falls apart when the
// framing has to cut exactly its first four bytes: the length is cut off, so its first byte becomes
// an empty packet and cutting goes on at 0x80, which reads as a SUBSCRIBE with flags 0 once whole.
// Hosts meet this when such a packet's first piece is exactly four bytes, or its bytes come one at a time.
class FourByteLength : public ReceiveFraming
{
protected:
    const Bytes body = Counting(2097152);
};

TEST_F(FourByteLength, FirstPieceOfExactlyFourBytesBreaksThePacket)
{
    Run({"four bytes first", {{0x30, 0x80, 0x80, 0x80}, Concat({{0x01}, body})}, {{0x30, {}}}, kEmpty, kBadFlags});
}

TEST_F(FourByteLength, HeaderArrivingOneByteAtATimeBreaksThePacket)
{
    std::vector<Bytes> pieces;
    for (uint8_t byte : Bytes{0x30, 0x80, 0x80, 0x80, 0x01}) pieces.push_back({byte});
    pieces.push_back(body);
    Run({"one byte at a time", pieces, {{0x30, {}}}, kEmpty, kBadFlags});
}

TEST_F(ReceiveFraming, PacketAndBuildRefuseWhatTheyCannotWorkOn)
{
    const char bytes[] = {static_cast<char>(0xC0), 0x00};
    EXPECT_FALSE(m_Parse.MQTTProtocol_Parse_Packet(nullptr, bytes, 2));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    TAVRIN_MQTTPARSE session;
    session.pSt_Locker = std::make_unique<std::mutex>();
    session.pStl_ListPacket = std::make_unique<std::list<MQTTPROTOCOL_MSGBUFFER>>();
    EXPECT_FALSE(m_Parse.MQTTProtocol_Parse_Build(&session, bytes, 2)) << "no packet is arriving";
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(m_Parse.MQTTProtocol_Parse_Packet(&session, bytes, -2));
    EXPECT_TRUE(session.pStl_ListPacket->empty());
}

}  // namespace
