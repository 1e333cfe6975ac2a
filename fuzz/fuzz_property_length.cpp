// The remaining-length decoder and the property block decoder on their own.
// Input: [available count][up to 7 length bytes][block length][block bytes...]
#include "FuzzSupport.h"

#include "MQTTProtocol.h"

#include <cstring>

namespace {

constexpr int kMaxRemainingLength = 268435455;

void CheckRemainingLength(mqttfuzz::InputReader& in)
{
    const int available = in.Byte() % 8;
    char field[8] = {};
    in.CopyOut(field, static_cast<size_t>(available));
    int value = -1;
    int headerSize = 1;
    if (!m_Parse.MQTTProtocol_Parse_Length(field, available, &value, &headerSize)) {
        REQUIRE(value == -1 && headerSize == 1);
        REQUIRE(MQTTProtocol_IsErrorOccur && MQTTProtocol_GetLastError(nullptr) == MQTTPROTOCOL_ERR_PARSE_LENGTH);
        return;
    }
    const int consumed = headerSize - 1;
    REQUIRE(consumed >= 1 && consumed <= 4 && consumed <= available);
    REQUIRE(value >= 0 && value <= kMaxRemainingLength);
    // The shortest encoding of the value is no longer than what was read, and decodes back to it.
    unsigned char encoded[5];
    unsigned char encodedCount = 0;
    m_Packet.MQTTProtocol_Packet_Length(value, encoded, &encodedCount);
    REQUIRE(encodedCount <= consumed);
    int decoded = -1;
    int decodedSize = 0;
    REQUIRE(m_Parse.MQTTProtocol_Parse_Length(reinterpret_cast<char*>(encoded), encodedCount, &decoded, &decodedSize));
    REQUIRE(decoded == value && decodedSize == encodedCount);
}

void CheckPropertyBlock(mqttfuzz::InputReader& in)
{
    // The block lies in a zeroed area as it does inside a received body, so a fixed-width value at
    // its end may read a few bytes past it.
    char block[1 + 255 + 8] = {};
    const uint8_t blockLen = in.Byte();
    block[0] = static_cast<char>(blockLen);
    in.CopyOut(block + 1, blockLen);

    MQTTPROTOCOL_HDRPROPERTY** list = nullptr;
    int count = 0;
    REQUIRE(m_Parse.MQTTProtocol_Parse_Property(block + 1, blockLen, &list, &count));
    REQUIRE(count >= 1 && count <= (blockLen > 0 ? blockLen : 1) && list != nullptr);
    int wireSize = 0;
    for (int i = 0; i < count; i++) {
        REQUIRE(list[i]->nPropertyLen <= 255);
        wireSize += 1 + list[i]->nPropertyLen;
    }
    // A block that decodes to exactly its length is given back byte for byte by the builder, up to
    // the 254 property bytes the builder's eight-bit position holds without wrapping.
    if (blockLen > 0 && blockLen <= 254 && wireSize == blockLen) {
        char rebuilt[sizeof(block)] = {};
        int rebuiltLen = 0;
        REQUIRE(m_Packet.MQTTProtocol_Packet_Property(rebuilt, &rebuiltLen, &list, count));
        REQUIRE(rebuiltLen == 1 + blockLen && std::memcmp(rebuilt, block, static_cast<size_t>(rebuiltLen)) == 0);
    }
    Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list), count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    mqttfuzz::InputReader in(data, size);
    CheckRemainingLength(in);
    CheckPropertyBlock(in);
    return 0;
}
