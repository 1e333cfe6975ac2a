#include "Keel_OperatorMemory.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

TEST(KeelOperatorMemory, AllocatesZeroedRecordsAndFreesThem)
{
    void** list = nullptr;
    ASSERT_TRUE(Keel_OperatorMemory_Malloc(&list, 3, 268));
    ASSERT_NE(list, nullptr);
    const char zeros[268] = {};
    for (int i = 0; i < 3; i++) {
        ASSERT_NE(list[i], nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(list[i]) % alignof(std::max_align_t), 0u) << i;
        EXPECT_EQ(std::memcmp(list[i], zeros, sizeof(zeros)), 0);
        std::memset(list[i], 0xA0 + i, sizeof(zeros));  // the whole record is writable
    }
    // Records share one allocation with the array: none overlaps another or the pointers.
    for (int i = 0; i < 3; i++) {
        const auto* record = static_cast<const unsigned char*>(list[i]);
        EXPECT_EQ(record[0], 0xA0 + i);
        EXPECT_EQ(record[sizeof(zeros) - 1], 0xA0 + i);
    }
    Keel_OperatorMemory_Free(&list, 3);
    EXPECT_EQ(list, nullptr);
}

TEST(KeelOperatorMemory, RefusesBadArgumentsWithoutTouchingTheListAndFreesNothingQuietly)
{
    void** sentinel = reinterpret_cast<void**>(0x1);
    void** list = sentinel;
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(nullptr, 1, 4));
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(&list, 0, 4));
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(&list, -1, 4));
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(&list, 1, 0));
    EXPECT_EQ(list, sentinel);
    Keel_OperatorMemory_Free(nullptr, 5);
    list = nullptr;
    Keel_OperatorMemory_Free(&list, 5);
    EXPECT_EQ(list, nullptr);
}
