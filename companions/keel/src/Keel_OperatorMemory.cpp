#include "Keel_OperatorMemory.h"

#include <cstdlib>

extern "C" bool Keel_OperatorMemory_Malloc(void*** list, int count, int recordSize)
{
    if (list == nullptr || count < 1 || recordSize < 1) {
        return false;
    }
    auto** records = static_cast<void**>(std::calloc(static_cast<size_t>(count), sizeof(void*)));
    if (records == nullptr) {
        return false;
    }
    for (int i = 0; i < count; i++) {
        records[i] = std::calloc(1, static_cast<size_t>(recordSize));
        if (records[i] == nullptr) {
            Keel_OperatorMemory_Free(&records, i);
            return false;
        }
    }
    *list = records;
    return true;
}

extern "C" void Keel_OperatorMemory_Free(void*** list, int count)
{
    if (list == nullptr || *list == nullptr) {
        return;
    }
    for (int i = 0; i < count; i++) {
        std::free((*list)[i]);
    }
    std::free(*list);
    *list = nullptr;
}
