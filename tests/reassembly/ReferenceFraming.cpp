#include "reassembly/ReferenceFraming.h"

#include "MQTTProtocol.h"

namespace reference {

bool Framing::Fail(uint64_t code)
{
    errorFlag = true;
    errorCode = code;
    return false;
}

bool Framing::ParseLength(const uint8_t* data, int size, int* length, int* headerSize)
{
    Clear();
    int index = 0;
    int multiplier = 1;
    int value = 0;
    for (;;) {
        if (index >= size || index > 3) return Fail(MQTTPROTOCOL_ERR_PARSE_LENGTH);
        const uint8_t byte = data[index++];
        value += (byte & 0x7F) * multiplier;
        multiplier <<= 7;
        if ((byte & 0x80) == 0) break;
    }
    *length = value;
    *headerSize += index;
    return true;
}

bool Framing::Send(const std::string& address, const Bytes& data)
{
    Clear();
    const auto found = m_Sessions.find(address);
    if (found == m_Sessions.end()) return Fail(MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    Session& session = found->second;
    const int size = static_cast<int>(data.size());
    if (!session.queue.empty() && (!session.queue.back().headerReady || !session.queue.back().packetReady)) {
        Build(session, data.data(), size);
        return true;
    }
    return Packet(session, data.data(), size);
}

// One call per packet, each on what follows the one before, as if nested: only the first call's result
// is the piece's. A loop rather than nesting, so that a long piece of small packets needs no deep stack.
bool Framing::Packet(Session& session, const uint8_t* data, int size)
{
    int cut = 0;
    const bool result = CutFirst(session, data, size, cut);
    while (cut > 0 && cut < size) {
        data += cut;
        size -= cut;
        CutFirst(session, data, size, cut);
    }
    return result;
}

// Cuts the first packet of data; cut is its size when it was queued whole, otherwise 0.
bool Framing::CutFirst(Session& session, const uint8_t* data, int size, int& cut)
{
    Clear();
    cut = 0;
    Record record;
    if (size < 4) {
        if (size == 2 && (data[0] >> 4) == 12 && data[1] == 0) {
            record.first = data[0];
            record.hasBlock = false;
            record.pktLen = 2;
            record.headerReady = record.packetReady = true;
            session.queue.push_back(record);
            session.ready++;
            return true;
        }
        record.bytes.assign(data, data + size);
        record.msgLen = size;
        record.pktLen = 4;
        session.queue.push_back(record);
        return true;
    }
    record.first = data[0];
    int headerSize = 1;
    int remaining = 0;
    ParseLength(data + 1, size - 1, &remaining, &headerSize);
    // The library's own decision: a packet no block can hold is refused as its header is cut.
    if (remaining > MQTTPROTOCOL_PACKET_BLOCK_SIZE) return Fail(MQTTPROTOCOL_ERR_PARSE_LENGTH);
    if (remaining > size - headerSize) {
        record.bytes.assign(data, data + size);
        record.msgLen = size;
        record.pktLen = remaining + headerSize;
        record.headerReady = true;
        session.queue.push_back(record);
        return true;
    }
    record.pktLen = remaining + headerSize;
    record.msgLen = remaining;
    record.headerReady = record.packetReady = true;
    record.bytes.assign(data + headerSize, data + headerSize + remaining);
    const int type = data[0] >> 4;
    if ((type == 8 || type == 10) && (data[0] & 0x0F) != 2) return Fail(MQTTPROTOCOL_ERR_PARSE_HDRFLAGS);
    session.queue.push_back(record);
    session.ready++;
    cut = record.pktLen;
    return true;
}

bool Framing::Build(Session& session, const uint8_t* data, int size)
{
    Clear();
    Record& last = session.queue.back();
    const int missing = last.pktLen - last.msgLen;
    last.bytes.insert(last.bytes.end(), data, data + size);
    last.msgLen += size;
    if (size < missing) return true;
    const Bytes whole = last.bytes;
    session.queue.pop_back();
    return Packet(session, whole.data(), static_cast<int>(whole.size()));
}

bool Framing::Recv(const std::string& address, Record& delivered)
{
    Clear();
    const auto found = m_Sessions.find(address);
    if (found == m_Sessions.end()) return Fail(MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    Session& session = found->second;
    if (session.queue.empty()) return Fail(MQTTPROTOCOL_ERR_PARSE_EMPTY);
    if (!session.queue.front().headerReady || !session.queue.front().packetReady) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    }
    delivered = session.queue.front();
    session.queue.pop_front();
    session.ready--;
    return true;
}

int Framing::ReadyCount(const std::string& address) const
{
    const auto found = m_Sessions.find(address);
    return found == m_Sessions.end() ? 0 : found->second.ready;
}

int Framing::Missing(const std::string& address) const
{
    const auto found = m_Sessions.find(address);
    if (found == m_Sessions.end() || found->second.queue.empty()) return 0;
    const Record& last = found->second.queue.back();
    return last.headerReady && !last.packetReady ? last.pktLen - last.msgLen : 0;
}

}  // namespace reference
