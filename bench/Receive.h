// The host's side of the receive path, as every receive benchmark drives it: feed pieces with
// MQTTProtocol_Parse_Send, take each ready packet with MQTTProtocol_Parse_Recv, decode a PUBLISH with
// MQTTProtocol_Parse_Publish, free the body, and sum what was decoded.
#pragma once

#include "Workload.h"

#include <MQTTProtocol.h>

#include <string>
#include <vector>

namespace bench {

// A client session for the length of a run: inserted on construction, deleted on destruction.
class Client
{
public:
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    const char* Address() const { return m_Address.c_str(); }
    bool Inserted() const { return m_Inserted; }

private:
    std::string m_Address;
    bool m_Inserted;
};

class Receiver
{
public:
    // maxBody: the longest body a packet will have.
    explicit Receiver(size_t maxBody);

    // Takes one packet of the client if one is ready; false when none is.
    bool TakeOne(const char* address);
    // Takes every packet of the client that is ready.
    void TakeReady(const char* address);
    // What was taken since the last call.
    Checksum TakeSum();

private:
    void Decode(MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length);
    // Adds a decoded PUBLISH to the checksum: the host's own work, which bench/instructions leaves out.
    void Tally(unsigned short identifier, int payloadLength);

    std::vector<char> m_Topic;
    std::vector<char> m_Payload;
    Checksum m_Sum;
};

// Gives bytes [begin, end) of a stream to a client in pieces of pieceSize and takes what each piece
// completes. False as soon as the library refuses a piece.
bool FeedPieces(const char* address, const std::vector<char>& stream, size_t begin, size_t end, size_t pieceSize,
                Receiver& receiver);

}  // namespace bench
