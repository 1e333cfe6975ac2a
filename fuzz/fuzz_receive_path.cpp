// The receive path driven by a script: Insert / Send (pieces of the input in fuzzer-chosen sizes, zero
// included) / Recv / Delete over a few client addresses, side by side with the reference model of the
// tests. After every step the library must agree with the model: results, error flag and code, every
// delivered record (first byte, body bytes, a block of exactly the body's size), and, before every
// Delete and at the end, the pool's ready counts.
// It runs in compact body mode: cutting, queueing and counting are the same in both modes, and only
// compact blocks let the sanitizer see a read or write past a body (a 10 MiB block hides one, and
// costs the sanitizer milliseconds). The unit tests run the same model in block mode.
// Input: a sequence of [operation and client][piece size or bulk size][piece bytes...]
#include "FuzzSupport.h"

#include "MQTTProtocol.h"
#include "reassembly/AllocatedSize.h"
#include "reassembly/PoolCounts.h"
#include "reassembly/ReferenceFraming.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include <string>

namespace {

constexpr int kPoolCount = 2;
constexpr int kClientCount = 3;

const std::string& Address(int client)
{
    static const std::string addresses[kClientCount] = {"127.0.0.1:1883", "[::1]:50000", "client-3"};
    return addresses[client];
}

class Script
{
public:
    ~Script()
    {
        CheckReadyCounts();
        for (int client = 0; client < kClientCount; client++) MQTTProtocol_Parse_Delete(Address(client).c_str());
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
            Send(client, in);
            break;
        case 2:
            Recv(client);
            break;
        default:
            Delete(client);
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
        if (++m_Inserts > kMaxInserts) return;
        REQUIRE(MQTTProtocol_Parse_Insert(Address(client).c_str()));
        m_Model.Insert(Address(client));
        m_Model.Sync(MQTTProtocol_IsErrorOccur, MQTTProtocol_dwErrorCode);
    }

    void Delete(int client)
    {
        CheckReadyCounts();
        REQUIRE(MQTTProtocol_Parse_Delete(Address(client).c_str()));
        m_Model.Delete(Address(client));
        m_Model.Sync(MQTTProtocol_IsErrorOccur, MQTTProtocol_dwErrorCode);
    }

    void Send(int client, mqttfuzz::InputReader& in)
    {
        const uint16_t control = in.U16();
        reference::Bytes bytes;
        if (control >> 11 == 31) {
            // A bulk: up to 512 KiB of body for the packet the client has begun, and never more, so
            // that packets of more than 64 KiB arrive and their buffers grow, as no input this short
            // could carry. (Repeating the fuzzer's bytes instead would as often make a hundred thousand
            // small packets, which cost most of the fuzzing time and reach nothing new.) Its bytes count
            // modulo 251, so that a byte the library copies to a wrong place shows.
            const int size = std::min((control % 2048 + 1) * 256, m_Model.Missing(Address(client)));
            for (int at = 0; at < size; at++) bytes.push_back(static_cast<uint8_t>(at % 251));
        } else {
            const uint8_t* piece = in.Rest();
            bytes.assign(piece, piece + in.Take(control % 2048));
        }
        const bool result = MQTTProtocol_Parse_Send(Address(client).c_str(),
                                                    reinterpret_cast<const char*>(bytes.data()),
                                                    static_cast<int>(bytes.size()));
        REQUIRE(result == m_Model.Send(Address(client), bytes));
        CheckErrorState();
    }

    void Recv(int client)
    {
        MQTTPROTOCOL_FIXEDHEADER header{};
        char* body = nullptr;
        int length = -1;
        const int readyBefore = m_Model.ReadyCount(Address(client));
        const bool result = MQTTProtocol_Parse_Recv(Address(client).c_str(), &header, &body, &length);
        reference::Record expected;
        REQUIRE(result == m_Model.Recv(Address(client), expected));
        CheckErrorState();
        if (!result) return;
        REQUIRE(readyBefore > 0);  // never more deliveries than packets counted ready
        uint8_t first;
        std::memcpy(&first, &header, 1);
        REQUIRE(first == expected.first && (body != nullptr) == expected.hasBlock);
        REQUIRE(length == static_cast<int>(expected.bytes.size()) && length <= MQTTPROTOCOL_PACKET_BLOCK_SIZE);
        if (body != nullptr) {
            REQUIRE(length == 0 || std::memcmp(body, expected.bytes.data(), expected.bytes.size()) == 0);
#ifdef MQTTTEST_KNOWS_ALLOCATED_SIZE
            REQUIRE(__sanitizer_get_allocated_size(body) == static_cast<size_t>(length > 0 ? length : 1));
#endif
        }
        std::free(body);
    }

    void CheckErrorState()
    {
        REQUIRE(MQTTProtocol_IsErrorOccur == m_Model.errorFlag);
        REQUIRE(MQTTProtocol_dwErrorCode == m_Model.errorCode);
    }

    // Counts change only with the model's, and only a Delete resets them, so a count that went wrong
    // is still wrong before the next Delete and at the end: listing the pool there, rather than after
    // every step, finds it at a fraction of the cost. Listing is an operation of its own: the model
    // takes over the error state it leaves.
    void CheckReadyCounts()
    {
        const auto counts = mqtttest::ReadyCounts(kPoolCount);
        for (int client = 0; client < kClientCount; client++) {
            const auto found = counts.find(Address(client));
            REQUIRE((found == counts.end() ? 0 : found->second) == m_Model.ReadyCount(Address(client)));
        }
        m_Model.Sync(MQTTProtocol_IsErrorOccur, MQTTProtocol_dwErrorCode);
    }

    reference::Framing m_Model;
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
