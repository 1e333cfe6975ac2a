// The size a block was allocated with, as the sanitizer's allocator knows it: under AddressSanitizer
// a compact block can be checked to be exactly its body's size. Elsewhere there is no such figure.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define MQTTTEST_KNOWS_ALLOCATED_SIZE 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MQTTTEST_KNOWS_ALLOCATED_SIZE 1
#endif
#endif

#ifdef MQTTTEST_KNOWS_ALLOCATED_SIZE
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* pointer);
#endif
