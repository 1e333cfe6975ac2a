#include "Runs.h"

#include "Receive.h"
#include "Table.h"

#include <cstring>
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
    const auto iterations = static_cast<double>(state.iterations());
    meter.Account(state, iterations * static_cast<double>(workload.packets.size()),
                  iterations * WireBytes(workload, workload.packets.size()));
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
