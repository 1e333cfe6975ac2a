// The receive path driven by a script: Insert / Send (pieces of the input in fuzzer-chosen sizes, zero
// included, or a bulk of body) / Recv / Delete over a few client addresses, side by side with the
// reference model of the tests (SideBySide). After every step the library must agree with the model:
// results, error flag and code, every delivered record (first byte, body bytes, a block of exactly the
// body's size), and, before every Delete and at the end, the pool's ready counts.
// It runs in compact body mode: cutting, queueing and counting are the same in both modes, and only
// compact blocks let the sanitizer see a read or write past a body (a 10 MiB block hides one, and
// costs the sanitizer milliseconds). The unit tests run the same model in block mode.
// Input: a sequence of [operation and client][piece size or bulk size][piece bytes...]
#include "FuzzSupport.h"

#include "MQTTProtocol.h"
#include "reassembly/SideBySide.h"

#include <algorithm>
#include <string>

namespace {

constexpr int kPoolCount = 2;
constexpr int kClientCount = 3;

const std::string& Address(int client)
{
    static const std::string addresses[kClientCount] = {"127.0.0.1:1883", "[::1]:50000", "client-3"};
    return addresses[client];
}

// A mismatch is a finding: say what differs, then abort so that libFuzzer and the replay runner both
// report it with the input.
void Report(const std::string& mismatch) { mqttfuzz::Require(false, mismatch.c_str(), __LINE__); }

class Script
{
public:
    ~Script()
    {
        for (int client = 0; client < kClientCount; client++) m_Sides.Delete(Address(client));
    }

    void Step(mqttfuzz::InputReader& in)
    {
        const uint8_t operation = in.Byte();
        const int client = (operation >> 2) % kClientCount;
        switch (operation & 3) {
        case 0:
            Insert(client);
            break;
        case 1:
            m_Sides.Send(Address(client), Piece(client, in));
            break;
        case 2:
            m_Sides.Recv(Address(client));
            break;
        default:
            m_Sides.Delete(Address(client));
            break;
        }
    }

private:
    // Every Insert leaves a session record that no call frees (Delete keeps it on purpose), so a script
    // inserts a few times at most: enough for duplicates and reconnections of every client, while the
    // records a fuzzing process keeps, and the heap its leak checks scan, stay small.
    static constexpr int kMaxInserts = 8;

    void Insert(int client)
    {
        if (++m_Inserts <= kMaxInserts) m_Sides.Insert(Address(client));
    }

    reference::Bytes Piece(int client, mqttfuzz::InputReader& in)
    {
        const uint16_t control = in.U16();
        if (control >> 11 != 31) {
            const uint8_t* piece = in.Rest();
            return reference::Bytes(piece, piece + in.Take(control % 2048));
        }
        // A bulk: up to 512 KiB of body for the packet the client has begun, and never more, so that
        // packets of more than 64 KiB arrive and their buffers grow, as no input this short could
        // carry. (Repeating the fuzzer's bytes instead would as often make a hundred thousand small
        // packets, which cost most of the fuzzing time and reach nothing new.) Its bytes count modulo
        // 251, so that a byte the library copies to a wrong place shows.
        const int size = std::min((control % 2048 + 1) * 256, m_Sides.Model().Missing(Address(client)));
        reference::Bytes bulk(static_cast<size_t>(size));
        for (int at = 0; at < size; at++) bulk[static_cast<size_t>(at)] = static_cast<uint8_t>(at % 251);
        return bulk;
    }

    mqtttest::SideBySide m_Sides{kPoolCount, Report};
    int m_Inserts = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool compact = MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_COMPACT);
    // A fresh pool for every input: an address inserted more often than deleted keeps pool entries
    // that no later Delete reaches, and they would carry one input's state into the next.
    REQUIRE(compact && MQTTProtocol_Parse_Init(kPoolCount));
    mqttfuzz::InputReader in(data, size);
    {
        Script script;
        while (!in.Empty()) script.Step(in);
    }
    MQTTProtocol_Parse_Destory();
    return 0;
}
