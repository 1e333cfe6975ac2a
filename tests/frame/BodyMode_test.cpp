// The body modes' promise: every decoder gives the same outputs for a body in a zero-filled block
// (block mode) as for a heap copy of exactly its length (compact mode), whatever the body holds;
// under the sanitizers a read past a compact body is a failure of its own. And the mode switch
// follows the reporting protocol of every operation.
#include "TestSupport.h"
#include "codec/DecoderRun.h"

#include <memory>
#include <random>

namespace {

using mqtttest::Bytes;

#ifdef MQTTTEST_SANITIZED
constexpr int kBodies = 600;
#else
constexpr int kBodies = 3000;
#endif

// Bodies shaped like packets' fields, then cut short or not: length prefixes that run past the end,
// property blocks of every length byte up to 255 with identifiers of every width, raw bytes.
class BodyMaker
{
public:
    explicit BodyMaker(uint32_t seed) : m_Random(seed) {}

    Bytes Body()
    {
        Bytes body;
        for (int fields = Between(0, 6); fields > 0; fields--) {
            switch (Between(0, 3)) {
            case 0: Prefixed(body); break;
            case 1: PropertyBlock(body); break;
            default: Raw(body, Between(0, 12)); break;
            }
        }
        if (Between(0, 3) == 0) body.resize(static_cast<size_t>(Between(0, static_cast<int>(body.size()))));
        return body;
    }

private:
    int Between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(m_Random); }

    void Raw(Bytes& body, int count)
    {
        for (int i = 0; i < count; i++) body.push_back(static_cast<uint8_t>(m_Random()));
    }
    void Prefixed(Bytes& body)
    {
        const int length = Between(0, 3) == 0 ? Between(0, 0xFFFF) : Between(0, 20);
        body.insert(body.end(), {static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
        Raw(body, std::min(length, Between(0, 24)));
    }
    void PropertyBlock(Bytes& body)
    {
        static const uint8_t kIdentifiers[] = {0x01, 0x02, 0x03, 0x11, 0x13, 0x21, 0x22, 0x26, 0x27, 0x2A, 0x7F};
        const int length = Between(0, 2) == 0 ? 255 : Between(0, 40);
        body.push_back(static_cast<uint8_t>(length));
        for (int left = Between(0, length); left > 0; left -= 3) {
            body.push_back(kIdentifiers[Between(0, sizeof(kIdentifiers) - 1)]);
            Raw(body, 2);
        }
    }

    std::mt19937 m_Random;
};

// One zero-filled block for every block-mode run, cleared again behind each body.
char* SharedBlock()
{
    static char* block = static_cast<char*>(std::calloc(1, MQTTPROTOCOL_PACKET_BLOCK_SIZE));
    return block;
}

mqttdecode::Run DecodeInMode(int mode, int decoder, uint8_t flags, const Bytes& body)
{
    EXPECT_TRUE(MQTTProtocol_Parse_BodyMode(mode));
    const int length = static_cast<int>(body.size());
    if (mode == MQTTPROTOCOL_BODY_BLOCK) {
        std::copy(body.begin(), body.end(), SharedBlock());
        mqttdecode::Run run = mqttdecode::Decode(decoder, flags, SharedBlock(), length);
        std::memset(SharedBlock(), 0, body.size());
        return run;
    }
    const std::unique_ptr<char[]> exact(new char[body.size()]);
    std::copy(body.begin(), body.end(), exact.get());
    return mqttdecode::Decode(decoder, flags, exact.get(), length);
}

TEST(BodyModes, EveryDecoderReadsACompactBodyAsItsBlockWouldBeRead)
{
    for (uint32_t seed = 1; seed <= kBodies && !HasFailure(); seed++) {
        const Bytes body = BodyMaker(seed).Body();
        for (int decoder = 0; decoder < mqttdecode::kDecoderCount; decoder++) {
            // PUBLISH is read by its flags nibble: all sixteen values.
            for (int flags = 0; flags < (decoder == 2 ? 16 : 1); flags++) {
                SCOPED_TRACE("seed " + std::to_string(seed) + ", decoder " + std::to_string(decoder) + ", flags " +
                             std::to_string(flags));
                EXPECT_TRUE(DecodeInMode(MQTTPROTOCOL_BODY_BLOCK, decoder, flags, body) ==
                            DecodeInMode(MQTTPROTOCOL_BODY_COMPACT, decoder, flags, body));
            }
        }
    }
    MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_BLOCK);
}

TEST(BodyModes, OnlyTheTwoModesAreAccepted)
{
    for (int mode : {-1, 2, 0x7FFFFFFF}) {
        EXPECT_FALSE(MQTTProtocol_Parse_BodyMode(mode));
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    EXPECT_TRUE(MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_COMPACT));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    EXPECT_TRUE(MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_BLOCK));
}

}  // namespace
