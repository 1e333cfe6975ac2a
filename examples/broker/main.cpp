// mqtt_broker: a small MQTT v5 broker on 127.0.0.1, built on libOstrel_MQTTProtocol.
//   mqtt_broker [--port N] [--pools N] [--trace]
// --port 0 takes any free port. The port is printed once the broker listens. SIGINT or SIGTERM
// stops it cleanly.
#include "broker/Broker.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

int Usage()
{
    std::fprintf(stderr, "usage: mqtt_broker [--port N] [--pools N] [--trace]\n");
    return 2;
}

bool ParseNumber(const char* text, long lowest, long highest, long& value)
{
    char* end = nullptr;
    value = std::strtol(text, &end, 10);
    return *text != '\0' && *end == '\0' && value >= lowest && value <= highest;
}

}  // namespace

int main(int argc, char** argv)
{
    broker::BrokerOptions options;
    options.pools = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    for (int index = 1; index < argc; index++) {
        const std::string option = argv[index];
        long value = 0;
        if (option == "--trace") {
            options.trace = true;
        } else if (option == "--port" && index + 1 < argc && ParseNumber(argv[++index], 0, 65535, value)) {
            options.port = static_cast<unsigned short>(value);
        } else if (option == "--pools" && index + 1 < argc && ParseNumber(argv[++index], 1, 1024, value)) {
            options.pools = static_cast<int>(value);
        } else {
            return Usage();
        }
    }

    // The stop signals are taken by the network thread alone, through a signal descriptor: block them
    // before any thread starts, so that every thread inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    broker::Broker broker(options);
    if (!broker.Start()) {
        return 1;
    }
    std::printf("listening on 127.0.0.1:%u with %d pool(s)\n", broker.Port(), options.pools);
    std::fflush(stdout);
    broker.Run(stopSignals);
    return 0;
}
