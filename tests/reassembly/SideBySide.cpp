#include "reassembly/SideBySide.h"

#include "frame/BodyMode.h"

#include <algorithm>
#include <cstdlib>

// Under AddressSanitizer the allocator knows the size a block was allocated with, so a compact block
// can be checked to be exactly its body's size. Elsewhere there is no such figure.
#if defined(__SANITIZE_ADDRESS__)
#define MQTTTEST_KNOWS_ALLOCATED_SIZE 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MQTTTEST_KNOWS_ALLOCATED_SIZE 1
#endif
#endif
#ifdef MQTTTEST_KNOWS_ALLOCATED_SIZE
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* pointer);
#endif

namespace mqtttest {

std::map<std::string, int> ReadyCounts(int indexCount)
{
    std::map<std::string, int> counts;
    for (int index = 0; index < indexCount; index++) {
        TAVRIN_HOPPER_TASKEVENT** events = nullptr;
        int count = 0;
        if (!MQTTProtocol_Parse_GetPool(index, &events, &count)) continue;
        for (int i = 0; i < count; i++) counts[events[i]->tszClientAddr] = events[i]->nPktCount;
        Keel_OperatorMemory_Free(reinterpret_cast<void***>(&events), count);
    }
    return counts;
}

Taken TakeOut(const char* address, bool checkWholeBlock)
{
    Taken taken;
    MQTTPROTOCOL_FIXEDHEADER header{};
    char* body = nullptr;
    int length = -1;
    taken.ok = MQTTProtocol_Parse_Recv(address, &header, &body, &length);
    if (!taken.ok) return taken;
    taken.first = static_cast<uint8_t>(header.byMsgType << 4 | header.byMsgFlag);
    taken.hasBody = body != nullptr;
    taken.blockSized = length == 0;
    if (body == nullptr) return taken;
    taken.blockSized = length >= 0 && length <= MQTTPROTOCOL_PACKET_BLOCK_SIZE;
#ifdef MQTTTEST_KNOWS_ALLOCATED_SIZE
    const size_t blockSize = mqttprotocol::CompactBodies() ? std::max(length, 1) : MQTTPROTOCOL_PACKET_BLOCK_SIZE;
    taken.blockSized = taken.blockSized && __sanitizer_get_allocated_size(body) == blockSize;
#endif
    if (taken.blockSized) {
        taken.body.assign(body, body + length);
        taken.zeroBeyondBody = !checkWholeBlock || std::all_of(body + length, body + MQTTPROTOCOL_PACKET_BLOCK_SIZE,
                                                               [](char byte) { return byte == 0; });
    }
    std::free(body);
    return taken;
}

void SideBySide::Insert(const std::string& address)
{
    Expect(MQTTProtocol_Parse_Insert(address.c_str()), "Insert refused");
    m_Model.Insert(address);
    m_Model.Sync(MQTTProtocol_IsErrorOccur, MQTTProtocol_dwErrorCode);
    m_Addresses.insert(address);
}

void SideBySide::Delete(const std::string& address)
{
    CompareReadyCounts();
    Expect(MQTTProtocol_Parse_Delete(address.c_str()), "Delete refused");
    m_Model.Delete(address);
    m_Model.Sync(MQTTProtocol_IsErrorOccur, MQTTProtocol_dwErrorCode);
}

void SideBySide::Send(const std::string& address, const reference::Bytes& piece)
{
    const bool result = MQTTProtocol_Parse_Send(address.c_str(), reinterpret_cast<const char*>(piece.data()),
                                                static_cast<int>(piece.size()));
    Expect(result == m_Model.Send(address, piece), "Send: result");
    CompareErrorState("Send");
    if (m_Counts == kAfterEveryCall) CompareReadyCounts();
}

bool SideBySide::Recv(const std::string& address)
{
    const Taken taken = TakeOut(address.c_str(), ++m_Deliveries % 64 == 0 && !mqttprotocol::CompactBodies());
    reference::Record expected;
    Expect(taken.ok == m_Model.Recv(address, expected), "Recv: result");
    CompareErrorState("Recv");
    if (m_Counts == kAfterEveryCall) CompareReadyCounts();
    if (!taken.ok) return false;
    Expect(taken.first == expected.first, "Recv: first byte");
    Expect(taken.hasBody == expected.hasBlock, "Recv: a block, or none");
    Expect(taken.blockSized, "Recv: block size");
    Expect(taken.body == expected.bytes, "Recv: body");
    Expect(taken.zeroBeyondBody, "Recv: the block is not zero beyond the body");
    return true;
}

void SideBySide::CompareErrorState(const char* operation)
{
    if (MQTTProtocol_IsErrorOccur != m_Model.errorFlag || MQTTProtocol_dwErrorCode != m_Model.errorCode) {
        m_Report(std::string(operation) + ": error state");
    }
}

// Listing the pool is an operation too: the model takes over the error state it leaves.
void SideBySide::CompareReadyCounts()
{
    const auto counts = ReadyCounts(m_PoolCount);
    for (const std::string& address : m_Addresses) {
        const auto found = counts.find(address);
        const int library = found == counts.end() ? 0 : found->second;
        if (library != m_Model.ReadyCount(address)) {
            m_Report("ready count of " + address + ": library " + std::to_string(library) + ", model " +
                     std::to_string(m_Model.ReadyCount(address)));
        }
    }
    m_Model.Sync(MQTTProtocol_IsErrorOccur, MQTTProtocol_dwErrorCode);
}

}  // namespace mqtttest
