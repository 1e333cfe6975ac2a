// One client connection: its lifecycle, what it fed the library, its MQTT session and its output.
#pragma once

#include "broker/Delivery.h"
#include "host/PacketCutter.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace broker {

// Where a connection is in its life. Every change goes through Connection::Enter, which alone knows
// which changes there are:
//   AwaitingConnect -> Connected   its CONNECT was accepted
//   AwaitingConnect -> Ending      refused, or no CONNECT in time
//   Connected       -> Ending      DISCONNECT, refused, taken over, silent past its keep-alive
//   any but Closed  -> Closed      its session is deleted and its socket closed
// While Ending, the workers drop what the client sent: only its close is still to come.
enum class Phase
{
    AwaitingConnect,
    Connected,
    Ending,
    Closed
};

struct Connection : std::enable_shared_from_this<Connection>
{
    Connection(std::uint64_t id, int fd, std::string address, std::size_t maxPacketSize)
        : id(id), address(address), boundaries(maxPacketSize), label(std::make_shared<const std::string>(address)),
          fd(fd)
    {
    }

    const std::uint64_t id;
    const std::string address;  // the library's key for the session: "127.0.0.1:54321#fd"

    // The network thread's alone.
    host::PacketBoundaries boundaries;
    bool inputEnded = false;
    Clock::time_point lastHeard = Clock::now();  // the last read with bytes in it
    Clock::time_point accepted = Clock::now();
    // Set by the worker that accepts the CONNECT; read by the network thread. 0: none.
    std::atomic<long> keepAliveMs{0};
    // The name in trace lines: the address, and the client identifier once known.
    std::atomic<std::shared_ptr<const std::string>> label;

    // Everything below is guarded by `lock` (never two connections' at once).
    std::mutex lock;
    Phase phase = Phase::AwaitingConnect;
    // Changes the phase when `next` may follow the present one; false, changing nothing, otherwise.
    bool Enter(Phase next);

    // What went to the library and came back out (for the network thread's budget).
    std::uint64_t fed = 0;    // packets that end in the bytes handed to the library, the end mark included
    std::uint64_t taken = 0;  // packets taken out
    bool endMarkFed = false;  // the input has ended and the end mark follows its last packet

    std::string clientId;
    unsigned maximumPacketSize = 0;  // the client's; 0: no limit
    OutboundFlow outbound;
    InboundQos2 inbound;

    int fd;              // -1 once closed
    std::string unsent;  // what the socket has not taken yet, from unsentOffset on
    std::size_t unsentOffset = 0;
    bool flushQueued = false;     // on a worker's flush list
    bool watchingWrites = false;  // the network thread is told when the socket takes more

    std::size_t UnsentBytes() const { return unsent.size() - unsentOffset; }
};

using ConnectionPtr = std::shared_ptr<Connection>;

}  // namespace broker
