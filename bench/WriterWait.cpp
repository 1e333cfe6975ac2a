// How long Insert and Delete wait behind threads that loop on Send and Recv: busy threads feed and
// take packets of their own sessions while the main thread deletes and re-inserts one address, and
// the program prints the percentiles of one Delete + Insert pair.
//
//   ostrel_writer_wait [--busy N] [--pairs N]
#include <MQTTProtocol.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options
{
    int busy = 3;
    int pairs = 2000;
};

bool ParseCount(const char* text, int low, int high, int& value)
{
    char* end = nullptr;
    const long parsed = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || parsed < low || parsed > high) return false;
    value = static_cast<int>(parsed);
    return true;
}

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; i++) {
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(argv[i], "--busy") == 0 && hasValue && ParseCount(argv[i + 1], 0, 64, options.busy)) {
            i++;
        } else if (std::strcmp(argv[i], "--pairs") == 0 && hasValue &&
                   ParseCount(argv[i + 1], 1, 1000000, options.pairs)) {
            i++;
        } else {
            return false;
        }
    }
    return true;
}

// One busy thread: a PUBLISH and a PINGREQ in one piece, then both taken, over and over.
void Busy(int number, const std::atomic<bool>& stop, std::atomic<long>& rounds)
{
    const std::string address = "busy-" + std::to_string(number);
    const char piece[] = {0x30, 0x07, 0x00, 0x01, 't', 'h', 'e', 'l', 'o', static_cast<char>(0xC0), 0x00};
    MQTTProtocol_Parse_Insert(address.c_str());
    long done = 0;
    while (!stop.load(std::memory_order_relaxed)) {
        MQTTProtocol_Parse_Send(address.c_str(), piece, sizeof(piece));
        MQTTPROTOCOL_FIXEDHEADER header;
        char* body = nullptr;
        int length = 0;
        while (MQTTProtocol_Parse_Recv(address.c_str(), &header, &body, &length)) std::free(body);
        done++;
    }
    rounds += done;
    MQTTProtocol_Parse_Delete(address.c_str());
}

double Percentile(std::vector<double>& sorted, double share)
{
    return sorted[std::min(sorted.size() - 1, static_cast<size_t>(share * static_cast<double>(sorted.size())))];
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::printf(
            "usage: %s [--busy 0..64] [--pairs 1..1000000]\n"
            "Times Delete + Insert pairs of one address while --busy threads (3) loop on Send and Recv.\n",
            argv[0]);
        return 0;
    }
    if (!ParseOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--busy 0..64] [--pairs 1..1000000] (--help)\n", argv[0]);
        return 2;
    }
    if (!MQTTProtocol_Parse_Init(1)) {
        std::fprintf(stderr, "cannot make the readiness pool\n");
        return 1;
    }
    std::atomic<bool> stop{false};
    std::atomic<long> rounds{0};
    std::vector<std::thread> busy;
    for (int i = 0; i < options.busy; i++) busy.emplace_back(Busy, i, std::cref(stop), std::ref(rounds));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    std::vector<double> micros;
    MQTTProtocol_Parse_Insert("writer");
    const auto start = Clock::now();
    for (int i = 0; i < options.pairs; i++) {
        const auto before = Clock::now();
        MQTTProtocol_Parse_Delete("writer");
        MQTTProtocol_Parse_Insert("writer");
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - before).count());
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    stop = true;
    for (auto& thread : busy) thread.join();
    MQTTProtocol_Parse_Delete("writer");
    MQTTProtocol_Parse_Destory();

    std::sort(micros.begin(), micros.end());
    std::printf("busy threads %d, Delete+Insert pairs %d: p50 %.1f us, p99 %.1f us, max %.1f us; busy rounds/s %.0f\n",
                options.busy, options.pairs, Percentile(micros, 0.5), Percentile(micros, 0.99), micros.back(),
                static_cast<double>(rounds.load()) / seconds);
    return 0;
}
