// The broker's settings: where it listens, how many workers it runs, and the limits that keep one
// client from taking what the others need. Every limit is a command-line option (see Usage).
#pragma once

#include <cstddef>
#include <string>

namespace broker {

enum class BodyMode
{
    Block,
    Compact
};

struct BrokerOptions
{
    unsigned short port = 1883;  // 0: any free port
    // Pool indexes, one worker thread each. One worker beside the network thread keeps both cores of
    // a small machine busy; each further worker adds wake-ups per packet.
    int pools = 1;
    bool trace = false;  // one line per packet in and out on standard output
    BodyMode bodyMode = BodyMode::Compact;

    // The largest packet a client may send, announced in CONNACK. At most the largest whose remaining
    // length takes three bytes: the library decodes a packet's fixed header from the first four bytes
    // it is given of it, and when those are all there is and they hold a four-byte length, it takes the
    // length as cut off and misreads the rest of the stream.
    std::size_t maxPacketSize = 1 + 3 + 2097151;
    // Packets handed to the library and not yet taken by a worker; past this the network thread stops
    // reading for a while. In block mode each holds a 10 MiB block and a memory mapping.
    long maxWaitingPackets = 1024;
    // Per client, beyond its Receive Maximum of QoS 1 and 2 messages in flight: how many messages and
    // bytes may wait for it, unsent or unacknowledged.
    std::size_t maxQueuedMessages = 1000;
    std::size_t maxQueuedBytes = 16u << 20;
    // All clients' waiting messages and unsent bytes together.
    std::size_t maxMemory = 256u << 20;
    std::size_t maxRetainedMessages = 10000;
    std::size_t maxRetainedBytes = 64u << 20;
    // A connection that sends no CONNECT within this is closed.
    long connectTimeoutMs = 10000;
};

// Fills `options` from the command line. False with a message for standard error in `error`, or with
// `error` empty when --help was asked for (Usage() then goes to standard output).
bool ParseOptions(int argc, char** argv, BrokerOptions& options, std::string& error);
const char* Usage();

}  // namespace broker
