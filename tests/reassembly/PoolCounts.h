// The pool's ready counts as a host sees them, shared by the receive tests and the receive-path fuzz
// harness (so it depends on the public header alone).
#pragma once

#include "MQTTProtocol.h"

#include <map>
#include <string>

namespace mqtttest {

// The pool's ready counts of every listed client over indexes 0 .. indexCount - 1. Listing is an
// operation of its own: it clears the error flag, and sets it when nothing is ready.
inline std::map<std::string, int> ReadyCounts(int indexCount)
{
    std::map<std::string, int> counts;
    for (int index = 0; index < indexCount; index++) {
        TAVRIN_HOPPER_TASKEVENT** events = nullptr;
        int count = 0;
        if (!MQTTProtocol_Parse_GetPool(index, &events, &count)) continue;
        for (int i = 0; i < count; i++) counts[events[i]->tszClientAddr] = events[i]->nPktCount;
        Keel_OperatorMemory_Free(reinterpret_cast<void***>(&events), count);
    }
    return counts;
}

}  // namespace mqtttest
