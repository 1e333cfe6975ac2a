// W1 for callgrind: feeds the W1 stream in 65,536-byte pieces, takes, decodes and frees every packet,
// in the body mode asked for. bench/instructions counts the instructions spent inside FeedPieces (the
// library's Send and Recv, the PUBLISH decoder and free; not the host's checksum) and divides them by
// the packets, so that the figure is the same on every run of the same binary.
//
//   ostrel_instructions block|compact [PACKETS]
#include "Receive.h"
#include "Workload.h"

#include <MQTTProtocol.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    const bool compact = argc > 1 && std::strcmp(argv[1], "compact") == 0;
    if (argc < 2 || (!compact && std::strcmp(argv[1], "block") != 0)) {
        std::fprintf(stderr, "usage: %s block|compact [PACKETS]\n", argv[0]);
        return 2;
    }
    const int packets = argc > 2 ? std::atoi(argv[2]) : 100000;
    if (packets <= 0) {
        std::fprintf(stderr, "PACKETS must be a positive number\n");
        return 2;
    }
    const bench::Workload& workload = bench::StreamOf(bench::StreamKind::SmallQos1, packets);
    if (!MQTTProtocol_Parse_Init(1) ||
        !MQTTProtocol_Parse_BodyMode(compact ? MQTTPROTOCOL_BODY_COMPACT : MQTTPROTOCOL_BODY_BLOCK)) {
        std::fprintf(stderr, "the receive side did not start\n");
        return 1;
    }
    bool matched = false;
    {
        bench::Client client;
        bench::Receiver receiver(bench::LongestBody(workload));
        const bool fed =
            bench::FeedPieces(client.Address(), workload.stream, 0, workload.stream.size(), 65536, receiver);
        matched = fed && receiver.TakeSum() == workload.expected;
    }
    MQTTProtocol_Parse_Destory();
    if (!matched) {
        std::fprintf(stderr, "the packets taken do not match the stream\n");
        return 1;
    }
    std::printf("packets: %d\n", packets);
    return 0;
}
