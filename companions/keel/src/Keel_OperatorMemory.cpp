#include "Keel_OperatorMemory.h"

#include <cstddef>
#include <cstdlib>

namespace {

// Records start on the boundary any type needs, as they would in allocations of their own.
constexpr size_t kAlignment = alignof(std::max_align_t);

size_t RoundedUp(size_t size) { return (size + kAlignment - 1) / kAlignment * kAlignment; }

}  // namespace

// The array and its records share one zeroed allocation: the pointers first, then the records, so a
// list costs one allocation and one free whatever its length.
extern "C" bool Keel_OperatorMemory_Malloc(void*** list, int count, int recordSize)
{
    if (list == nullptr || count < 1 || recordSize < 1) {
        return false;
    }
    const size_t arraySize = RoundedUp(static_cast<size_t>(count) * sizeof(void*));
    const size_t stride = RoundedUp(static_cast<size_t>(recordSize));
    size_t recordsSize = 0;
    size_t total = 0;
    if (__builtin_mul_overflow(stride, static_cast<size_t>(count), &recordsSize) ||
        __builtin_add_overflow(arraySize, recordsSize, &total)) {
        return false;
    }
    auto* block = static_cast<char*>(std::calloc(1, total));
    if (block == nullptr) {
        return false;
    }
    auto** records = reinterpret_cast<void**>(block);
    for (int i = 0; i < count; i++) {
        records[i] = block + arraySize + static_cast<size_t>(i) * stride;
    }
    *list = records;
    return true;
}

extern "C" void Keel_OperatorMemory_Free(void*** list, int /*count*/)
{
    if (list == nullptr || *list == nullptr) {
        return;
    }
    std::free(*list);
    *list = nullptr;
}
