// Many example clients at once through a broker: each subscribes to its own topic and publishes to
// its neighbour's, at QoS 1 or 2. Every client must get each of its neighbour's messages exactly once.
// Usage: host_load_clients PORT CLIENTS MESSAGES
#include "client/Client.h"

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex reportLock;
std::atomic<int> failures{0};

void Report(int client, const std::string& problem)
{
    std::lock_guard lock(reportLock);
    std::fprintf(stderr, "client %d: %s\n", client, problem.c_str());
    failures++;
}

// Client i listens on load/i at QoS 1 for odd i, 2 for even i; messages to it go at that QoS too.
int QosOf(int client) { return client % 2 == 0 ? 2 : 1; }

void RunClient(int self, int clients, int messages, unsigned short port, std::barrier<>& subscribed)
{
    const int neighbour = (self + 1) % clients;
    const int sender = (self + clients - 1) % clients;
    std::multiset<std::string> received;
    client::Client session([&](const host::Publish& message) { received.insert(message.payload); });
    if (!session.Connect("127.0.0.1", port, "load-" + std::to_string(self)) ||
        !session.Subscribe("load/" + std::to_string(self), QosOf(self))) {
        Report(self, session.Error());
        subscribed.arrive_and_drop();
        return;
    }
    subscribed.arrive_and_wait();
    for (int message = 0; message < messages; message++) {
        const std::string payload = std::to_string(self) + ":" + std::to_string(message);
        if (!session.Publish("load/" + std::to_string(neighbour), payload, QosOf(neighbour))) {
            Report(self, session.Error());
            return;
        }
    }
    if (!session.WaitForMessages(static_cast<std::size_t>(messages))) {
        Report(self, session.Error());
        return;
    }
    for (int message = 0; message < messages; message++) {
        const auto count = received.count(std::to_string(sender) + ":" + std::to_string(message));
        if (count != 1) {
            Report(self, "message " + std::to_string(message) + " arrived " + std::to_string(count) + " times");
        }
    }
    if (received.size() != static_cast<std::size_t>(messages)) {
        Report(self, std::to_string(received.size()) + " messages arrived");
    }
    session.Disconnect();
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: host_load_clients PORT CLIENTS MESSAGES\n");
        return 2;
    }
    const auto port = static_cast<unsigned short>(std::atoi(argv[1]));
    const int clients = std::atoi(argv[2]);
    const int messages = std::atoi(argv[3]);

    std::barrier subscribed(clients);
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int client = 0; client < clients; client++) {
        threads.emplace_back(RunClient, client, clients, messages, port, std::ref(subscribed));
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const int total = clients * messages;
    std::printf("%d clients, %d messages at QoS 1 and 2 in %.2f s (%.0f messages/s), %d failure(s)\n", clients, total,
                seconds, total / seconds, failures.load());
    return failures == 0 ? 0 : 1;
}
