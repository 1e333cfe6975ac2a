// The body modes' promise: every decoder gives the same outputs for a body in a zero-filled block
// (block mode) as for a heap copy of exactly its length (compact mode), whatever the body holds;
// under the sanitizers a read past a compact body is a failure of its own.
#include "TestSupport.h"
#include "codec/DecoderRun.h"

#include <memory>

namespace {

using mqtttest::Bytes;

#ifdef MQTTTEST_SANITIZED
constexpr int kBodies = 600;
#else
constexpr int kBodies = 3000;
#endif

// Bodies shaped like packets' fields, then cut short or not: length prefixes that run past the end,
// property blocks of every length byte up to 255 with identifiers of every width, raw bytes.
class BodyMaker : public mqtttest::SeededRandom
{
public:
    using SeededRandom::SeededRandom;

    Bytes Body()
    {
        static const uint8_t kIdentifiers[] = {0x01, 0x02, 0x03, 0x11, 0x13, 0x21, 0x22, 0x26, 0x27, 0x2A, 0x7F};
        Bytes body;
        for (int fields = Between(0, 6); fields > 0; fields--) {
            const int kind = Between(0, 3);
            if (kind == 0) {  // a length prefix and up to 24 of the bytes it claims
                const int length = Between(0, 3) == 0 ? Between(0, 0xFFFF) : Between(0, 20);
                Append(body, {static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
                Append(body, Some(std::min(length, Between(0, 24))));
            } else if (kind == 1) {  // a property block: its length byte, then identifiers with two bytes each
                const int length = Between(0, 2) == 0 ? 255 : Between(0, 40);
                body.push_back(static_cast<uint8_t>(length));
                for (int left = Between(0, length); left > 0; left -= 3) {
                    body.push_back(kIdentifiers[Between(0, sizeof(kIdentifiers) - 1)]);
                    Append(body, Some(2));
                }
            } else {
                Append(body, Some(Between(0, 12)));
            }
        }
        if (Between(0, 3) == 0) body.resize(static_cast<size_t>(Between(0, static_cast<int>(body.size()))));
        return body;
    }

private:
    static void Append(Bytes& body, const Bytes& more) { body.insert(body.end(), more.begin(), more.end()); }
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

}  // namespace
