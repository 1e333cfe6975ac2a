// A reference model of the receive side, for differential tests only: the receive algorithm written
// out literally over byte vectors (a packet is cut from its first byte and the rest of the input is
// cut again by a nested call; a completed partial is cut again with everything that came after it),
// with its own copy of the error flag and code and a ready count per client. It is short and slow on
// purpose: it is what the library's framing must be indistinguishable from.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace reference {

using Bytes = std::vector<uint8_t>;

// One queued record, as the algorithm keeps it: the used bytes of its block (the body of a complete
// packet, the raw bytes so far of a partial one).
struct Record
{
    uint8_t first = 0;
    Bytes bytes;
    bool hasBlock = true;  // false only for a two-byte PINGREQ cut as an input of its own
    int msgLen = 0;
    int pktLen = 0;
    bool headerReady = false;
    bool packetReady = false;
};

class Framing
{
public:
    // The model's error globals; Sync copies the library's after operations the model does not know.
    bool errorFlag = false;
    uint64_t errorCode = 0;
    void Sync(bool flag, uint64_t code)
    {
        errorFlag = flag;
        errorCode = code;
    }

    void Insert(const std::string& address) { m_Sessions.try_emplace(address); }
    void Delete(const std::string& address) { m_Sessions.erase(address); }
    bool Send(const std::string& address, const Bytes& data);
    // On success, the record handed out.
    bool Recv(const std::string& address, Record& delivered);
    int ReadyCount(const std::string& address) const;
    // The bytes still missing from the packet the client has begun, once its header is in; else 0.
    int Missing(const std::string& address) const;

private:
    struct Session
    {
        std::deque<Record> queue;
        int ready = 0;
    };

    bool Packet(Session& session, const uint8_t* data, int size);
    bool CutFirst(Session& session, const uint8_t* data, int size, int& cut);
    bool Build(Session& session, const uint8_t* data, int size);
    bool ParseLength(const uint8_t* data, int size, int* length, int* headerSize);
    void Clear() { errorFlag = false; }
    bool Fail(uint64_t code);

    std::map<std::string, Session> m_Sessions;
};

}  // namespace reference
