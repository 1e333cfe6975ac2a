#include "broker/Connection.h"

namespace broker {

bool Connection::Enter(Phase next)
{
    bool allowed = false;
    switch (next) {
    case Phase::AwaitingConnect:
        break;
    case Phase::Connected:
        allowed = phase == Phase::AwaitingConnect;
        break;
    case Phase::Ending:
        allowed = phase == Phase::AwaitingConnect || phase == Phase::Connected;
        break;
    case Phase::Closed:
        allowed = phase != Phase::Closed;
        break;
    }
    if (allowed) {
        phase = next;
    }
    return allowed;
}

}  // namespace broker
