// mqtt_client: connects to an MQTT v5 broker, publishes messages, subscribes to a filter and prints
// what arrives. mqtt_client --help lists the options. It exits 0 only when the broker answered
// everything it was asked; 1 when it refused, failed to answer in time or the connection failed; 2 on
// bad options.
#include "client/Client.h"

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr const char* kUsage =
    "usage: mqtt_client [OPTION]...\n"
    "Connects to an MQTT v5 broker, publishes, subscribes and prints what arrives.\n"
    "  --host H             the broker's host (default 127.0.0.1)\n"
    "  --port N             the broker's port (default 1883)\n"
    "  --id ID              client identifier (default ostrel-client-PID)\n"
    "  --timeout SECONDS    how long to wait for each answer of the broker (default 10)\n"
    "Publishing, to --pub TOPIC, each message at the --qos given before it:\n"
    "  --pub TOPIC          the topic to publish to\n"
    "  --qos Q              0, 1 or 2 (default 0)\n"
    "  --retain             publish with RETAIN\n"
    "  --message TEXT       a message; may be repeated\n"
    "  --file PATH          a message read from a file, or from standard input for -\n"
    "  --repeat N           N messages: \"message 1\" to \"message N\"\n"
    "Subscribing:\n"
    "  --sub FILTER         subscribe before publishing, then print each message that arrives\n"
    "  --sub-qos Q          the subscription's maximum QoS (default 2)\n"
    "  --count N            stop after N messages (default: as many as it publishes; without\n"
    "                       publishing, listen until interrupted)\n"
    "  --hex                print payloads in hex (otherwise bytes outside printable ASCII as \\xNN)\n";

struct Outgoing
{
    std::string payload;
    int qos = 0;
};

struct Options
{
    std::string host = "127.0.0.1";
    unsigned short port = 1883;
    std::string id = "ostrel-client-" + std::to_string(getpid());
    std::string filter;
    int subscriptionQos = 2;
    std::string topic;
    bool retain = false;
    bool hex = false;
    std::vector<Outgoing> messages;
    long count = -1;
    long timeoutSeconds = 10;
};

volatile std::sig_atomic_t interrupted = 0;

bool ParseNumber(const std::string& text, long lowest, long highest, long& value)
{
    char* end = nullptr;
    value = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && value >= lowest && value <= highest;
}

bool ReadPayload(const std::string& path, std::string& payload)
{
    std::ifstream file;
    if (path != "-") {
        file.open(path, std::ios::binary);
        if (!file) {
            return false;
        }
    }
    std::istream& in = path == "-" ? std::cin : file;
    payload.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// Fills `options`; false with the reason in `error`, or with `error` empty for --help.
bool ParseOptions(int argc, char** argv, Options& options, std::string& error)
{
    int qos = 0;
    for (int index = 1; index < argc; index++) {
        const std::string option = argv[index];
        if (option == "--help" || option == "-h" || option == "--retain" || option == "--hex") {
            if (option == "--help" || option == "-h") {
                return false;
            }
            (option == "--retain" ? options.retain : options.hex) = true;
            continue;
        }
        if (index + 1 >= argc) {
            error = option + ": unknown option, or its value is missing";
            return false;
        }
        const std::string value = argv[++index];
        long number = 0;
        bool valid = true;
        std::string payload;
        if (option == "--host") {
            options.host = value;
        } else if (option == "--port" && (valid = ParseNumber(value, 1, 65535, number))) {
            options.port = static_cast<unsigned short>(number);
        } else if (option == "--id") {
            options.id = value;
        } else if (option == "--sub") {
            options.filter = value;
        } else if ((option == "--sub-qos" || option == "--qos") && (valid = ParseNumber(value, 0, 2, number))) {
            (option == "--qos" ? qos : options.subscriptionQos) = static_cast<int>(number);
        } else if (option == "--pub") {
            options.topic = value;
        } else if (option == "--message") {
            options.messages.push_back({value, qos});
        } else if (option == "--file" && (valid = ReadPayload(value, payload))) {
            options.messages.push_back({std::move(payload), qos});
        } else if (option == "--repeat" && (valid = ParseNumber(value, 1, 1000000, number))) {
            for (long message = 1; message <= number; message++) {
                options.messages.push_back({"message " + std::to_string(message), qos});
            }
        } else if (option == "--count" && (valid = ParseNumber(value, 1, 1000000000, number))) {
            options.count = number;
        } else if (option == "--timeout" && (valid = ParseNumber(value, 1, 86400, number))) {
            options.timeoutSeconds = number;
        } else {
            error = valid ? option + ": unknown option" : option + " " + value + ": not a valid value";
            return false;
        }
    }
    if (options.topic.empty() != options.messages.empty()) {
        error = "--pub needs a message (--message, --file or --repeat), and a message needs --pub";
        return false;
    }
    if (options.topic.empty() && options.filter.empty()) {
        error = "nothing to do: give --pub or --sub";
        return false;
    }
    return true;
}

std::string Printable(std::string_view payload, bool hex)
{
    std::string text;
    char byte[8];
    for (const char c : payload) {
        const auto value = static_cast<unsigned char>(c);
        const bool plain = !hex && value >= 0x20 && value < 0x7F && c != '\\' && c != '"';
        std::snprintf(byte, sizeof(byte), hex ? "%02x" : "\\x%02x", value);
        text += plain ? std::string(1, c) : std::string(byte);
    }
    return text;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    std::string error;
    if (!ParseOptions(argc, argv, options, error)) {
        std::fputs(error.empty() ? kUsage : ("mqtt_client: " + error + " (see --help)\n").c_str(),
                   error.empty() ? stdout : stderr);
        return error.empty() ? 0 : 2;
    }
    // SIGINT ends listening: it interrupts the wait instead of the program.
    struct sigaction onInterrupt
    {
    };
    onInterrupt.sa_handler = [](int) { interrupted = 1; };
    sigaction(SIGINT, &onInterrupt, nullptr);

    const bool hex = options.hex;
    client::Client client([hex](const host::Publish& message) {
        std::printf("received topic=\"%s\" qos=%d%s payload=\"%s\"\n", message.topic.c_str(), message.qos,
                    message.retain ? " retained" : "", Printable(message.payload, hex).c_str());
        std::fflush(stdout);
    });
    client.SetTimeout(std::chrono::seconds(options.timeoutSeconds));
    bool ok = client.Connect(options.host, options.port, options.id);
    if (ok && !options.filter.empty() && (ok = client.Subscribe(options.filter, options.subscriptionQos))) {
        std::printf("subscribed to \"%s\" at qos %d\n", options.filter.c_str(), options.subscriptionQos);
    }
    for (std::size_t index = 0; ok && index < options.messages.size(); index++) {
        const auto& message = options.messages[index];
        if ((ok = client.Publish(options.topic, message.payload, message.qos, options.retain))) {
            std::printf("published to \"%s\" at qos %d: %zu bytes\n", options.topic.c_str(), message.qos,
                        message.payload.size());
        }
    }
    // A QoS 0 message has no acknowledgement: the answer to a PINGREQ behind it shows the broker took it.
    ok = ok && client.Ping();
    if (ok && !options.filter.empty()) {
        const std::size_t count = options.count > 0 ? static_cast<std::size_t>(options.count) : options.messages.size();
        ok = options.messages.empty() ? client.Listen(count) || interrupted : client.WaitForMessages(count);
    }
    if (!ok) {
        std::fprintf(stderr, "mqtt_client: %s\n", client.Error().c_str());
        return 1;
    }
    client.Disconnect();
    return 0;
}
