// A small MQTT v5 broker on the library's exported interface.
//
// One network thread accepts connections on 127.0.0.1 and reads them (epoll, non-blocking sockets),
// and hands every read, up to the first byte it finds malformed, to the library's receive side, which
// cuts the stream into packets. One worker thread per pool index waits for the library to report
// clients with packets ready, takes the packets, decodes them and answers with the library's
// builders. A client whose stream is malformed, or that breaks a limit, is closed; the others carry on.
#pragma once

#include "broker/Options.h"

#include <csignal>
#include <memory>

namespace broker {

class Broker
{
public:
    explicit Broker(const BrokerOptions& options);
    ~Broker();

    // Listens on 127.0.0.1 and starts the library's receive side. False, with the reason on standard
    // error, when either fails.
    bool Start();
    unsigned short Port() const;

    // Serves until one of `stopSignals` arrives (the caller has blocked them in every thread), then
    // closes every connection and ends the receive side.
    void Run(const sigset_t& stopSignals);

    struct State;

private:
    std::unique_ptr<State> state_;
};

}  // namespace broker
