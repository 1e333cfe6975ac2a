// The library's framing and delivery against the reference model, call by call (SideBySide), over
// random streams in random pieces and over named streams cut every way.
#include "reassembly/ReceiveSupport.h"

#include <vector>

namespace {

using mqtttest::Bytes;
using mqtttest::Concat;
using mqtttest::Counting;
using mqtttest::Wire;

// A few clients through the library and the model side by side, ready counts compared after every
// call.
struct Clients : mqtttest::SideBySide
{
    explicit Clients(int count)
        : SideBySide(
              mqtttest::ReceiveTest::kPoolCount, [](const std::string& mismatch) { ADD_FAILURE() << mismatch; },
              kAfterEveryCall)
    {
        for (int i = 0; i < count; i++) Insert(addresses.emplace_back(mqtttest::FreshAddress("differential")));
    }
    ~Clients()
    {
        for (const std::string& address : addresses) Delete(address);
    }
    void Drain(int client)
    {
        while (Recv(addresses[client]) && !::testing::Test::HasFailure()) {
        }
    }
    int Count() const { return static_cast<int>(addresses.size()); }

    std::vector<std::string> addresses;
};

// Random streams: every packet type, PINGREQs, two- and three-byte packets, bad SUBSCRIBE and
// UNSUBSCRIBE flags, malformed, longer-than-needed and five-byte lengths, lengths no block holds,
// garbage; and random cuttings of them, empty pieces included.
class StreamMaker : public mqtttest::SeededRandom
{
public:
    using SeededRandom::SeededRandom;

    Bytes Stream()
    {
        Bytes stream;
        for (int packets = Between(1, 10); packets > 0; packets--) {
            const Bytes packet = Packet();
            stream.insert(stream.end(), packet.begin(), packet.end());
        }
        return stream;
    }

    std::vector<Bytes> Cut(const Bytes& stream)
    {
        std::vector<Bytes> pieces;
        for (size_t at = 0, size = 0; at < stream.size(); at += size) {
            size = std::min(stream.size() - at, PieceSize(stream.size() - at));
            pieces.emplace_back(stream.begin() + static_cast<long>(at), stream.begin() + static_cast<long>(at + size));
        }
        return pieces;
    }

private:
    size_t PieceSize(size_t left)
    {
        const int pick = Between(1, 100);
        if (pick <= 5) return 0;
        return static_cast<size_t>(Between(1, pick <= 45 ? 5 : pick <= 75 ? 40 : static_cast<int>(left)));
    }

    int BodySize()
    {
        const int pick = Between(1, 1000);
        if (pick <= 300) return Between(0, 4);
        if (pick <= 700) return Between(5, 40);
        if (pick <= 960) return Between(100, 300);
        if (pick <= 997) return Between(16370, 16400);
        return Between(2097150, 2097153);
    }

    uint8_t FirstByte()
    {
        const int type = Between(1, 15);
        const int flags = (type == 8 || type == 10) ? 2 : (Chance(70) ? 0 : Between(0, 15));
        return static_cast<uint8_t>(type << 4 | flags);
    }

    Bytes Packet()
    {
        const int pick = Between(1, 100);
        const auto anyByte = [this] { return static_cast<uint8_t>(Between(0, 255)); };
        if (pick <= 12) return {static_cast<uint8_t>(0xC0 | (Chance(80) ? 0 : Between(1, 15))), 0x00};
        if (pick <= 20) return {FirstByte(), 0x00};
        if (pick <= 28) return {FirstByte(), 0x01, anyByte()};
        if (pick <= 33) return LongerLength();
        if (pick <= 37)
            return Wire(static_cast<uint8_t>((Chance(50) ? 0x80 : 0xA0) | Between(0, 15)), Some(Between(0, 30)));
        if (pick <= 41) return Bytes{anyByte(), 0x80, 0x80, 0x80, 0x80, anyByte()};
        if (pick <= 44) return TooLong();
        if (pick <= 49) return Some(Between(1, 6));
        return Wire(FirstByte(), Some(BodySize()));
    }

    // The same value with a continuation byte more than it needs.
    Bytes LongerLength()
    {
        const Bytes body = Some(Between(0, 20));
        Bytes wire = Wire(FirstByte(), body);
        wire[1] |= 0x80;
        wire.insert(wire.begin() + 2, 0x00);
        return wire;
    }

    // A header whose remaining length no block can hold, and a few bytes of body.
    Bytes TooLong()
    {
        Bytes wire{FirstByte()};
        mqtttest::AppendRemainingLength(wire,
                                        static_cast<size_t>(Between(MQTTPROTOCOL_PACKET_BLOCK_SIZE + 1, 268435455)));
        return mqtttest::Concat({wire, Some(Between(0, 8))});
    }
};

// Both body modes give the same observables; only the size of the delivered blocks differs.
class ReceiveDifferential : public mqtttest::ReceiveTest, public ::testing::WithParamInterface<int>
{
protected:
    void SetUp() override
    {
        ReceiveTest::SetUp();
        ASSERT_TRUE(MQTTProtocol_Parse_BodyMode(GetParam()));
    }
    void TearDown() override
    {
        MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_BLOCK);
        ReceiveTest::TearDown();
    }
};

INSTANTIATE_TEST_SUITE_P(BodyModes, ReceiveDifferential,
                         ::testing::Values(MQTTPROTOCOL_BODY_BLOCK, MQTTPROTOCOL_BODY_COMPACT),
                         [](const auto& info) { return info.param == MQTTPROTOCOL_BODY_BLOCK ? "Block" : "Compact"; });

TEST_P(ReceiveDifferential, RandomStreamsInRandomPiecesMatchTheReferenceModel)
{
    constexpr uint32_t kSeeds = mqtttest::kSanitized ? 250 : 2500;
    for (uint32_t seed = 1; seed <= kSeeds && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        StreamMaker maker(seed);
        Clients sides(maker.Between(1, 3));
        std::vector<std::vector<Bytes>> pieces;
        for (int client = 0; client < sides.Count(); client++) pieces.push_back(maker.Cut(maker.Stream()));
        std::vector<size_t> next(pieces.size(), 0);
        for (bool sent = true; sent && !HasFailure();) {
            sent = false;
            const int first = maker.Between(0, sides.Count() - 1);
            for (int turn = 0; turn < sides.Count() && !sent; turn++) {
                const int client = (first + turn) % sides.Count();
                if (next[client] == pieces[client].size()) continue;
                sides.Send(sides.addresses[client], pieces[client][next[client]++]);
                sent = true;
            }
            for (int takes = maker.Chance(40) ? maker.Between(1, 3) : 0; takes > 0; takes--) {
                sides.Recv(sides.addresses[maker.Between(0, sides.Count() - 1)]);
            }
        }
        for (int client = 0; client < sides.Count(); client++) sides.Drain(client);
    }
}

struct NamedStream
{
    const char* name;
    Bytes bytes;
};

// Malformed lengths and short packets, which the random streams meet only by chance, each cut every way.
const NamedStream kNamedStreams[] = {
    {"a five-byte length", Concat({{0x30, 0x80, 0x80, 0x80, 0x80, 0x01}, {0xC0, 0x00}, Wire(0x30, Counting(3))})},
    {"lengths longer than needed", {0x30, 0x83, 0x00, 1, 2, 3, 0x40, 0x80, 0x80, 0x00, 0xE0, 0x00, 0xC0, 0x00}},
    {"two- and three-byte packets", {0xE0, 0x00, 0x40, 0x01, 0x07, 0xC0, 0x00, 0x62, 0x01, 0x05, 0xE0, 0x00}},
    {"the start of a packet with a four-byte length",
     Concat({{0xC0, 0x00, 0x30, 0x80, 0x80, 0x80, 0x01}, Counting(20)})},
};

void RunPieces(const std::vector<Bytes>& pieces)
{
    Clients sides(1);
    for (const Bytes& piece : pieces) {
        sides.Send(sides.addresses[0], piece);
        sides.Drain(0);
        if (::testing::Test::HasFailure()) return;
    }
}

TEST_P(ReceiveDifferential, NamedStreamsWholeByteByByteAndAtEverySplit)
{
    for (const NamedStream& stream : kNamedStreams) {
        SCOPED_TRACE(stream.name);
        RunPieces({stream.bytes});
        std::vector<Bytes> bytes;
        for (uint8_t byte : stream.bytes) bytes.push_back({byte});
        RunPieces(bytes);
        for (size_t split = 0; split <= stream.bytes.size() && !HasFailure(); split++) {
            SCOPED_TRACE("split at " + std::to_string(split));
            const auto middle = stream.bytes.begin() + static_cast<long>(split);
            RunPieces({Bytes(stream.bytes.begin(), middle), Bytes(middle, stream.bytes.end())});
        }
    }
}

}  // namespace
