// The road of a host: network threads hand pieces of many clients' streams to Send (each client's
// bytes in order, from one thread), one worker per pool index loops on WaitEvent, GetPool and Recv,
// and ActiveEvent stops the workers. Every packet must come out exactly once and in its client's
// order, and every ready count must end at zero.
#include "reassembly/ReceiveSupport.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using mqtttest::Bytes;

constexpr int kPoolCount = 3;
constexpr int kNetworkThreads = 3;
constexpr int kClients = 240;
constexpr int kPacketsPerClient = mqtttest::kSanitized ? 2 : 12;

// A client's stream and what must come out of it, in order: PINGREQs and PUBLISHes whose bodies name
// their client and place. It ends with a PUBLISH: a short packet at the very end would wait for
// bytes that never come.
struct Client
{
    Client(int number, std::mt19937& random)
    {
        for (int i = 0; i < kPacketsPerClient; i++) {
            Bytes packet{0xC0, 0x00};
            if (i + 1 == kPacketsPerClient || random() % 3 != 0) {
                Bytes body{static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number), static_cast<uint8_t>(i)};
                body.resize(body.size() + random() % 200, static_cast<uint8_t>(i));
                packet = mqtttest::Wire(0x30, body);
            }
            expected.push_back(packet);
            stream.insert(stream.end(), packet.begin(), packet.end());
        }
    }

    mqtttest::Session session{"concurrent"};
    Bytes stream;
    std::vector<Bytes> expected;  // each packet as it goes on the wire
    size_t delivered = 0;         // touched only by the worker of the client's pool index
};

// Sends the streams of every client whose number is `thread` modulo the thread count, a random
// piece at a time, clients taking turns.
void Network(std::deque<Client>& clients, int thread)
{
    std::mt19937 random(static_cast<uint32_t>(thread));
    std::vector<size_t> sent(clients.size(), 0);
    for (bool more = true; more;) {
        more = false;
        for (size_t i = static_cast<size_t>(thread); i < clients.size(); i += kNetworkThreads) {
            const Bytes& stream = clients[i].stream;
            if (sent[i] == stream.size()) continue;
            const size_t size = std::min<size_t>(stream.size() - sent[i], 1 + random() % 64);
            EXPECT_TRUE(clients[i].session.Send(Bytes(stream.begin() + sent[i], stream.begin() + sent[i] + size)));
            sent[i] += size;
            more = true;
        }
    }
}

class Workers
{
public:
    explicit Workers(std::deque<Client>& clients)
    {
        for (Client& client : clients) m_ByAddress[client.session.address] = &client;
        for (int index = 0; index < kPoolCount; index++) m_Threads.emplace_back([this, index] { Work(index); });
    }

    // Waits until every expected packet is out, then wakes the workers to stop.
    void Finish(int expectedTotal)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (m_Delivered.load() < expectedTotal && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        m_Stop.store(true);
        for (int index = 0; index < kPoolCount; index++) EXPECT_TRUE(MQTTProtocol_Parse_ActiveEvent(index));
        for (auto& thread : m_Threads) thread.join();
    }

private:
    void Work(int index)
    {
        while (!m_Stop.load()) {
            if (!MQTTProtocol_Parse_WaitEvent(index, -1) || m_Stop.load()) continue;
            TAVRIN_HOPPER_TASKEVENT** ready = nullptr;
            int count = 0;
            if (!MQTTProtocol_Parse_GetPool(index, &ready, &count)) continue;  // taken meanwhile
            for (int i = 0; i < count; i++) TakeAll(*m_ByAddress.at(ready[i]->tszClientAddr), ready[i]->nPktCount);
            Keel_OperatorMemory_Free(reinterpret_cast<void***>(&ready), count);
        }
    }

    void TakeAll(Client& client, int readyCount)
    {
        for (int n = 0; n < readyCount; n++) {
            const mqtttest::Taken taken = mqtttest::Take(client.session.c_str());
            if (!taken.ok) return;
            ASSERT_LT(client.delivered, client.expected.size()) << client.session.address;
            EXPECT_EQ(mqtttest::Wire(taken.first, taken.body), client.expected[client.delivered++]);
            m_Delivered++;
        }
    }

    std::map<std::string, Client*> m_ByAddress;
    std::vector<std::thread> m_Threads;
    std::atomic<bool> m_Stop{false};
    std::atomic<int> m_Delivered{0};
};

TEST(ReceiveConcurrency, EveryPacketOnceAndInOrderAcrossThreads)
{
    ASSERT_TRUE(MQTTProtocol_Parse_Init(kPoolCount));
    {
        std::mt19937 random(7);
        std::deque<Client> clients;
        int expectedTotal = 0;
        for (int i = 0; i < kClients; i++)
            expectedTotal += static_cast<int>(clients.emplace_back(i, random).expected.size());
        Workers workers(clients);
        std::vector<std::thread> network;
        for (int thread = 0; thread < kNetworkThreads; thread++)
            network.emplace_back(Network, std::ref(clients), thread);
        for (auto& thread : network) thread.join();
        workers.Finish(expectedTotal);
        for (const Client& client : clients)
            EXPECT_EQ(client.delivered, client.expected.size()) << client.session.address;
        EXPECT_TRUE(mqtttest::ReadyCounts(kPoolCount).empty());
    }
    MQTTProtocol_Parse_Destory();
}

// A client reconnects: the host inserts the new session while the old one's Delete is under way.
// Whenever the new session ends up in the table, the pool must count its packets, or no worker
// would ever be told of them.
TEST(ReceiveConcurrency, ReconnectLeavesTheNewSessionCounted)
{
    ASSERT_TRUE(MQTTProtocol_Parse_Init(1));
    const Bytes ping{0xC0, 0x00};
    const Bytes large = mqtttest::Wire(0x30, Bytes(1 << 20, 'x'));
    constexpr int kTries = mqtttest::kSanitized ? 50 : 200;
    int inTable = 0;
    int uncounted = 0;
    for (int i = 0; i < kTries; i++) {
        const std::string address = mqtttest::FreshAddress("reconnect");
        const char* client = address.c_str();
        ASSERT_TRUE(MQTTProtocol_Parse_Insert(client));
        // Delete waits while a long Send holds the table lock, and Insert, which enters the address into
        // the pool under no lock, gets there first: the order of a reconnect that goes wrong.
        std::atomic<bool> sending{false};
        std::thread sender([&] {
            sending = true;
            MQTTProtocol_Parse_Send(client, mqtttest::AsChars(large), static_cast<int>(large.size()));
        });
        while (!sending.load()) std::this_thread::yield();
        std::thread deletion([&] { MQTTProtocol_Parse_Delete(client); });
        std::thread insertion([&] { MQTTProtocol_Parse_Insert(client); });
        sender.join();
        deletion.join();
        insertion.join();
        // When Insert reaches the table first it keeps the old session, which Delete then removes. The
        // new session must count exactly what it holds: the old one's packets went with it, and the
        // long Send, if Delete and Insert both came before it, went to the new one.
        if (!MQTTProtocol_Parse_Send(client, mqtttest::AsChars(ping), static_cast<int>(ping.size()))) continue;
        inTable++;
        const int counted = mqtttest::ReadyCount(address, 1);
        int held = 0;
        while (mqtttest::Take(client).ok) held++;
        if (counted != held) uncounted++;
        MQTTProtocol_Parse_Delete(client);
    }
    EXPECT_EQ(uncounted, 0) << "uncounted, of " << inTable << " new sessions in the table";
    MQTTProtocol_Parse_Destory();
}

}  // namespace
