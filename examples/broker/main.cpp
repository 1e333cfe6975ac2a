// mqtt_broker: a small MQTT v5 broker on 127.0.0.1, built on libOstrel_MQTTProtocol.
// mqtt_broker --help lists the options. --port 0 takes any free port. The port is printed once the
// broker listens. SIGINT or SIGTERM stops it cleanly.
#include "broker/Broker.h"

#include <csignal>
#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
    broker::BrokerOptions options;
    std::string error;
    if (!broker::ParseOptions(argc, argv, options, error)) {
        if (error.empty()) {
            std::fputs(broker::Usage(), stdout);
            return 0;
        }
        std::fprintf(stderr, "mqtt_broker: %s\n", error.c_str());
        return 2;
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
    std::printf("listening on 127.0.0.1:%u with %d pool(s), %s bodies\n", broker.Port(), options.pools,
                options.bodyMode == broker::BodyMode::Compact ? "compact" : "block");
    std::fflush(stdout);
    broker.Run(stopSignals);
    return 0;
}
