// Every packet decoder, fed a body in both body modes: once at the start of a zero-filled
// 0xA00000-byte block in block mode, once as a heap copy of exactly its length in compact mode, where
// any read past the body is a finding of the sanitizer. Both runs must give the same outputs.
// Input: [decoder selector][PUBLISH flags nibble][body...]
#include "FuzzSupport.h"
#include "codec/DecoderRun.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr size_t kBlockSize = MQTTPROTOCOL_PACKET_BLOCK_SIZE;

mqttdecode::Run DecodeIn(int mode, int decoder, uint8_t publishFirstByte, const char* body, int length)
{
    REQUIRE(MQTTProtocol_Parse_BodyMode(mode));
    return mqttdecode::Decode(decoder, publishFirstByte, body, length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static char* block = static_cast<char*>(std::calloc(1, kBlockSize));
    mqttfuzz::InputReader in(data, size);
    const int decoder = in.Byte() % mqttdecode::kDecoderCount;
    const auto publishFirstByte = static_cast<uint8_t>(0x30 | (in.Byte() & 0x0F));
    const uint8_t* body = in.Rest();
    const int length = static_cast<int>(in.Take(kBlockSize));
    std::memcpy(block, body, static_cast<size_t>(length));
    const std::unique_ptr<char[]> exact(new char[static_cast<size_t>(length)]);
    std::memcpy(exact.get(), body, static_cast<size_t>(length));

    const mqttdecode::Run inBlock = DecodeIn(MQTTPROTOCOL_BODY_BLOCK, decoder, publishFirstByte, block, length);
    const mqttdecode::Run compact = DecodeIn(MQTTPROTOCOL_BODY_COMPACT, decoder, publishFirstByte, exact.get(), length);
    REQUIRE(inBlock == compact);
    // Only a CONNECT of another protocol level is refused; every other body decodes.
    REQUIRE(inBlock.result || (decoder == mqttdecode::kConnect && inBlock.code == MQTTPROTOCOL_ERR_PARSE_VERSION));
    REQUIRE(inBlock.payloadLen == -1 || (inBlock.payloadLen > 0 && inBlock.payloadLen <= length));
    // Inside a packet, the largest property block bounds every decoded width.
    const bool insidePacket = decoder != mqttdecode::kPropertyBlock;
    REQUIRE(!insidePacket || inBlock.propertyCount <= 255);
    for (const MQTTPROTOCOL_HDRPROPERTY& property : inBlock.properties) {
        REQUIRE(!insidePacket || property.nPropertyLen <= 254);
    }

    std::memset(block, 0, static_cast<size_t>(length));
    return 0;
}
