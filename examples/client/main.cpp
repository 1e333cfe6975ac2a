// mqtt_client: connects to an MQTT v5 broker, subscribes to a filter, publishes messages and prints
// what arrives.
//   mqtt_client [--host H] [--port N] [--id ID] [--sub FILTER [--sub-qos Q]] [--pub TOPIC]
//               [--qos Q] [--retain] --message TEXT ... | --count N [--expect N] [--timeout SECONDS]
// Each --message is published at the --qos given before it, so one run can publish at every QoS.
// --count N publishes "message 1" to "message N". When subscribed, it waits for --expect messages
// (by default as many as it publishes) before it disconnects. Exits 0 when everything succeeded.
#include "client/Client.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

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
    std::vector<Outgoing> messages;
    long expect = -1;
    long timeoutSeconds = 10;
};

bool ParseOptions(int argc, char** argv, Options& options)
{
    int qos = 0;
    for (int index = 1; index < argc; index++) {
        const std::string option = argv[index];
        if (option == "--retain") {
            options.retain = true;
            continue;
        }
        if (index + 1 >= argc) {
            return false;
        }
        const std::string value = argv[++index];
        const long number = std::strtol(value.c_str(), nullptr, 10);
        if (option == "--host") {
            options.host = value;
        } else if (option == "--port") {
            options.port = static_cast<unsigned short>(number);
        } else if (option == "--id") {
            options.id = value;
        } else if (option == "--sub") {
            options.filter = value;
        } else if (option == "--sub-qos") {
            options.subscriptionQos = static_cast<int>(number);
        } else if (option == "--pub") {
            options.topic = value;
        } else if (option == "--qos") {
            qos = static_cast<int>(number);
        } else if (option == "--message") {
            options.messages.push_back({value, qos});
        } else if (option == "--count") {
            for (long message = 1; message <= number; message++) {
                options.messages.push_back({"message " + std::to_string(message), qos});
            }
        } else if (option == "--expect") {
            options.expect = number;
        } else if (option == "--timeout") {
            options.timeoutSeconds = number;
        } else {
            return false;
        }
    }
    return options.topic.empty() == options.messages.empty();
}

void Print(const host::Publish& message)
{
    std::printf("received topic=\"%s\" qos=%d%s payload=\"%s\"\n", message.topic.c_str(), message.qos,
                message.retain ? " retained" : "", message.payload.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: mqtt_client [--host H] [--port N] [--id ID] [--sub FILTER [--sub-qos Q]] "
                             "[--pub TOPIC [--qos Q] [--retain] (--message TEXT ... | --count N)] [--expect N] "
                             "[--timeout SECONDS]\n");
        return 2;
    }
    client::Client client(Print);
    client.SetTimeout(std::chrono::seconds(options.timeoutSeconds));
    bool ok = client.Connect(options.host, options.port, options.id) && client.Ping();
    if (ok && !options.filter.empty()) {
        ok = client.Subscribe(options.filter, options.subscriptionQos);
        std::printf("subscribed to \"%s\" at qos %d\n", options.filter.c_str(), options.subscriptionQos);
    }
    for (std::size_t index = 0; ok && index < options.messages.size(); index++) {
        const auto& message = options.messages[index];
        ok = client.Publish(options.topic, message.payload, message.qos, options.retain);
        std::printf("published to \"%s\" at qos %d: \"%s\"\n", options.topic.c_str(), message.qos, message.payload.c_str());
    }
    const std::size_t expected =
        options.expect >= 0 ? static_cast<std::size_t>(options.expect) : (options.filter.empty() ? 0 : options.messages.size());
    ok = ok && client.WaitForMessages(expected);
    if (!ok) {
        std::fprintf(stderr, "mqtt_client: %s\n", client.Error().c_str());
        return 1;
    }
    client.Disconnect();
    return 0;
}
