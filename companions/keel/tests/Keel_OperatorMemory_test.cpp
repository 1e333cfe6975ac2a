#include "Keel_OperatorMemory.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(KeelOperatorMemory, AllocatesZeroedRecordsAndFreesThem)
{
    void** list = nullptr;
    ASSERT_TRUE(Keel_OperatorMemory_Malloc(&list, 3, 268));
    ASSERT_NE(list, nullptr);
    const char zeros[268] = {};
    for (int i = 0; i < 3; i++) {
        ASSERT_NE(list[i], nullptr);
        EXPECT_EQ(std::memcmp(list[i], zeros, sizeof(zeros)), 0);
        std::memset(list[i], 0xAB, sizeof(zeros));  // the whole record is writable
    }
    EXPECT_NE(list[0], list[1]);
    Keel_OperatorMemory_Free(&list, 3);
    EXPECT_EQ(list, nullptr);
}

TEST(KeelOperatorMemory, RefusesBadArgumentsWithoutTouchingTheList)
{
    void** sentinel = reinterpret_cast<void**>(0x1);
    void** list = sentinel;
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(nullptr, 1, 4));
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(&list, 0, 4));
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(&list, -1, 4));
    EXPECT_FALSE(Keel_OperatorMemory_Malloc(&list, 1, 0));
    EXPECT_EQ(list, sentinel);
}

TEST(KeelOperatorMemory, FreeAcceptsNullAndEmpty)
{
    Keel_OperatorMemory_Free(nullptr, 5);
    void** list = nullptr;
    Keel_OperatorMemory_Free(&list, 5);
    EXPECT_EQ(list, nullptr);
}
