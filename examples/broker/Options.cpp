#include "broker/Options.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>

namespace broker {

namespace {

// A whole decimal number within [lowest, highest].
bool ParseNumber(const std::string& text, long long lowest, long long highest, long long& value)
{
    char* end = nullptr;
    errno = 0;
    value = std::strtoll(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && errno == 0 && value >= lowest && value <= highest;
}

// Seconds, with a fraction if wanted, as milliseconds within [1 ms, a day].
bool ParseSeconds(const std::string& text, long& milliseconds)
{
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(seconds >= 0.001 && seconds <= 86400)) {
        return false;
    }
    milliseconds = static_cast<long>(seconds * 1000);
    return true;
}

}  // namespace

const char* Usage()
{
    return "usage: mqtt_broker [OPTION]...\n"
           "A small MQTT v5 broker on 127.0.0.1, built on libOstrel_MQTTProtocol.\n"
           "  --port N                  listen on port N (0: any free port; default 1883)\n"
           "  --pools N                 pool indexes, one worker thread each (1-64; default 1)\n"
           "  --body-mode block|compact how the library hands out packet bodies (default compact)\n"
           "  --trace                   one line per packet in and out on standard output\n"
           "Limits:\n"
           "  --max-packet-size BYTES   largest packet a client may send (64-2097155; default 2097155)\n"
           "  --max-waiting-packets N   packets read and not yet handled before reading pauses (default 1024)\n"
           "  --max-queued-messages N   messages waiting for one client beyond its Receive Maximum (default 1000)\n"
           "  --max-queued-bytes BYTES  bytes waiting for one client, unsent or unacknowledged (default 16 MiB)\n"
           "  --max-memory BYTES        bytes waiting for all clients together (default 256 MiB)\n"
           "  --max-retained N          retained messages kept (default 10000)\n"
           "  --max-retained-bytes BYTES  bytes of retained messages kept (default 64 MiB)\n"
           "  --connect-timeout SECONDS close a connection without CONNECT after this (default 10)\n"
           "A client that overruns its queue with QoS 1 or 2 messages, or finds the memory cap reached, is\n"
           "disconnected with 0x97 (quota exceeded); QoS 0 messages are dropped instead. A client silent for\n"
           "1.5 times its keep-alive is disconnected with 0x8D. SIGINT or SIGTERM stops the broker.\n";
}

bool ParseOptions(int argc, char** argv, BrokerOptions& options, std::string& error)
{
    constexpr long long kGiB = 1LL << 30;
    // Numeric options: their range and where they go.
    struct Numeric
    {
        long long lowest;
        long long highest;
        std::function<void(long long)> store;
    };
    const std::map<std::string, Numeric> numeric = {
        {"--port", {0, 65535, [&](long long v) { options.port = static_cast<unsigned short>(v); }}},
        {"--pools", {1, 64, [&](long long v) { options.pools = static_cast<int>(v); }}},
        {"--max-packet-size",
         {64, 1 + 3 + 2097151, [&](long long v) { options.maxPacketSize = static_cast<std::size_t>(v); }}},
        {"--max-waiting-packets", {1, 1000000, [&](long long v) { options.maxWaitingPackets = static_cast<long>(v); }}},
        {"--max-queued-messages",
         {1, 10000000, [&](long long v) { options.maxQueuedMessages = static_cast<std::size_t>(v); }}},
        {"--max-queued-bytes",
         {1024, 64 * kGiB, [&](long long v) { options.maxQueuedBytes = static_cast<std::size_t>(v); }}},
        {"--max-memory", {1024, 64 * kGiB, [&](long long v) { options.maxMemory = static_cast<std::size_t>(v); }}},
        {"--max-retained",
         {0, 10000000, [&](long long v) { options.maxRetainedMessages = static_cast<std::size_t>(v); }}},
        {"--max-retained-bytes",
         {0, 64 * kGiB, [&](long long v) { options.maxRetainedBytes = static_cast<std::size_t>(v); }}},
    };
    for (int index = 1; index < argc; index++) {
        const std::string option = argv[index];
        if (option == "--help" || option == "-h") {
            error.clear();
            return false;
        }
        if (option == "--trace") {
            options.trace = true;
            continue;
        }
        if (index + 1 >= argc) {
            error = option + ": unknown option, or its value is missing (see --help)";
            return false;
        }
        const std::string value = argv[++index];
        long long number = 0;
        if (const auto found = numeric.find(option); found != numeric.end()) {
            if (!ParseNumber(value, found->second.lowest, found->second.highest, number)) {
                error = option + " " + value + ": not a whole number from " + std::to_string(found->second.lowest) +
                        " to " + std::to_string(found->second.highest);
                return false;
            }
            found->second.store(number);
        } else if (option == "--body-mode" && (value == "block" || value == "compact")) {
            options.bodyMode = value == "block" ? BodyMode::Block : BodyMode::Compact;
        } else if (option != "--connect-timeout" || !ParseSeconds(value, options.connectTimeoutMs)) {
            error = option + " " + value + ": unknown option or bad value (see --help)";
            return false;
        }
    }
    return true;
}

}  // namespace broker
