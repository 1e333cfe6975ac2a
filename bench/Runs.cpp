#include "Runs.h"

#include "Receive.h"
#include "Table.h"

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace bench {

void RunOneClient(benchmark::State& state, const Workload& workload, size_t pieceSize)
{
    Client client;
    Receiver receiver(LongestBody(workload));
    if (!client.Inserted()) {
        state.SkipWithError("the session could not be inserted");
    }
    const Meter meter;
    for (auto _ : state) {
        if (!FeedPieces(client.Address(), workload.stream, 0, workload.stream.size(), pieceSize, receiver)) {
            state.SkipWithError("a piece was refused");
        } else if (!(receiver.TakeSum() == workload.expected)) {
            state.SkipWithError("checksum mismatch");
        }
    }
    AccountPackets(state, meter, workload, workload.packets.size());
}

void AccountPackets(benchmark::State& state, const Meter& meter, const Workload& workload, size_t count)
{
    const auto iterations = static_cast<double>(state.iterations());
    meter.Account(state, iterations * static_cast<double>(count), iterations * WireBytes(workload, count));
}

namespace {

// Copies the bodies of packets [first, end) into blocks of their own, then frees them oldest first.
bool HoldBlocks(const Workload& workload, size_t first, size_t end, std::vector<char*>& held)
{
    held.clear();
    for (size_t i = first; i < end; i++) {
        char* block = static_cast<char*>(std::calloc(1, MQTTPROTOCOL_PACKET_BLOCK_SIZE));
        if (block == nullptr) {
            break;
        }
        std::memcpy(block, BodyOf(workload, i), workload.packets[i].bodyLength);
        held.push_back(block);
    }
    benchmark::DoNotOptimize(held.data());
    for (char* block : held) {
        std::free(block);
    }
    return held.size() == end - first;
}

}  // namespace

void RunPieceFloor(benchmark::State& state, const Workload& workload, size_t pieceSize)
{
    const std::vector<size_t> completed = CompletedByPiece(workload, pieceSize);
    std::vector<char*> held;
    const Meter meter;
    for (auto _ : state) {
        size_t first = 0;
        for (const size_t end : completed) {
            if (!HoldBlocks(workload, first, end, held)) {
                state.SkipWithError("out of memory");
                break;
            }
            first = end;
        }
    }
    AccountPackets(state, meter, workload, workload.packets.size());
}

bool FillAndFree(char* block, const char* body, uint32_t length)
{
    if (block == nullptr) {
        return false;
    }
    std::memcpy(block, body, length);
    benchmark::DoNotOptimize(block);
    std::free(block);
    return true;
}

bool CopyFloor(const char* body, uint32_t length)
{
    return FillAndFree(static_cast<char*>(std::malloc(length)), body, length);
}

void RunBaseline(benchmark::State& state, const Workload& workload, size_t count, PerPacket perPacket)
{
    const Meter meter;
    for (auto _ : state) {
        for (size_t i = 0; i < count; i++) {
            if (!perPacket(BodyOf(workload, i), workload.packets[i].bodyLength)) {
                state.SkipWithError("out of memory");
                break;
            }
        }
    }
    AccountPackets(state, meter, workload, count);
}

std::string InModeLabel(const std::string& label, int bodyMode)
{
    return label + (bodyMode == MQTTPROTOCOL_BODY_COMPACT ? ", compact mode" : ", block mode");
}

std::string LibraryLabel(int bodyMode) { return InModeLabel("library", bodyMode); }

RunOfRow InBodyMode(int bodyMode, RunOfRow run)
{
    return [bodyMode, run = std::move(run)](benchmark::State& state) {
        if (!MQTTProtocol_Parse_BodyMode(bodyMode)) {
            state.SkipWithError("the body mode could not be set");
            return;
        }
        run(state);
        MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_BLOCK);
    };
}

void RunMemcpy(benchmark::State& state, size_t bytes)
{
    // Both filled, so that every page is present before the clock runs.
    std::vector<char> source(bytes + 1, 'x');
    std::vector<char> destination(bytes + 1, 'y');
    size_t count = bytes;
    const Meter meter;
    for (auto _ : state) {
        benchmark::DoNotOptimize(count);  // a length the compiler cannot see, like a packet's
        std::memcpy(destination.data(), source.data(), count);
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    const auto iterations = static_cast<double>(state.iterations());
    meter.Account(state, iterations, iterations * static_cast<double>(bytes));
}

}  // namespace bench
