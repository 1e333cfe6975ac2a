#include "Hopper_TaskPool.h"

#include "Keel_OperatorMemory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

// A pool for one test, destroyed at its end.
struct ScopedPool
{
    explicit ScopedPool(int count) : handle(Hopper_TaskPool_CreateEx(count)) {}
    ~ScopedPool()
    {
        if (handle != nullptr) Hopper_TaskPool_DestoryEx(handle);
    }
    int Insert(const char* address)
    {
        int index = -1;
        EXPECT_TRUE(Hopper_TaskPool_AddrInsertEx(handle, address, &index)) << address;
        return index;
    }
    HOPPER_HANDLE handle;
};

// The ready listing of an index as (address, count) pairs; empty when nothing is ready.
using Listing = std::vector<std::pair<std::string, int>>;
Listing Ready(HOPPER_HANDLE pool, int index)
{
    TAVRIN_HOPPER_TASKEVENT** events = nullptr;
    int count = 0;
    Listing listed;
    if (!Hopper_TaskPool_AddrGetEx(pool, index, &events, &count)) {
        EXPECT_EQ(Hopper_GetLastError(nullptr), HOPPER_ERR_NOTREADY);
        EXPECT_EQ(events, nullptr) << "nothing is written when nothing is ready";
        return listed;
    }
    for (int i = 0; i < count; i++) listed.emplace_back(events[i]->tszClientAddr, events[i]->nPktCount);
    Keel_OperatorMemory_Free(reinterpret_cast<void***>(&events), count);
    return listed;
}

TEST(HopperPool, NewAddressGoesToTheIndexWithFewestAddresses)
{
    ScopedPool pool(3);
    ASSERT_NE(pool.handle, nullptr);
    EXPECT_EQ(pool.Insert("a"), 0);
    EXPECT_EQ(pool.Insert("b"), 1);
    EXPECT_EQ(pool.Insert("c"), 2);
    EXPECT_EQ(pool.Insert("d"), 0);
    ASSERT_TRUE(Hopper_TaskPool_AddrDeleteEx(pool.handle, 1, "b"));
    EXPECT_EQ(pool.Insert("e"), 1) << "the index a delete emptied is filled first";
    EXPECT_EQ(pool.Insert("f"), 1) << "lowest index on a tie";
}

// A reconnecting client is inserted again before its old connection is deleted: that delete takes
// the old entry and its count, and the address stays, counted from zero, until its last entry goes.
TEST(HopperPool, EachInsertAddsAnEntryThatOneDeleteRemoves)
{
    ScopedPool pool(2);
    pool.Insert("a");
    const int index = pool.Insert("b");
    ASSERT_TRUE(Hopper_TaskPool_AddrIncEx(pool.handle, index, "b"));
    EXPECT_EQ(pool.Insert("b"), index);
    EXPECT_EQ(Ready(pool.handle, index), (Listing{{"b", 1}})) << "count kept";

    ASSERT_TRUE(Hopper_TaskPool_AddrDeleteEx(pool.handle, index, "b"));
    EXPECT_TRUE(Ready(pool.handle, index).empty()) << "the old entry's packets went with it";
    ASSERT_TRUE(Hopper_TaskPool_AddrIncEx(pool.handle, index, "b")) << "the later entry stays";
    EXPECT_EQ(Ready(pool.handle, index), (Listing{{"b", 1}}));

    ASSERT_TRUE(Hopper_TaskPool_AddrDeleteEx(pool.handle, index, "b"));
    EXPECT_FALSE(Hopper_TaskPool_AddrIncEx(pool.handle, index, "b"));
    EXPECT_EQ(Hopper_GetLastError(nullptr), HOPPER_ERR_NOTFOUND) << "gone with its last entry";
}

TEST(HopperPool, CountsPerAddressAndListsReadyOnesInInsertionOrder)
{
    ScopedPool pool(1);
    for (const char* address : {"first", "second", "third"}) pool.Insert(address);
    EXPECT_TRUE(Ready(pool.handle, 0).empty());

    for (const char* address : {"third", "first", "third"})
        ASSERT_TRUE(Hopper_TaskPool_AddrIncEx(pool.handle, 0, address));
    EXPECT_EQ(Ready(pool.handle, 0), (Listing{{"first", 1}, {"third", 2}}));

    ASSERT_TRUE(Hopper_TaskPool_AddrDecEx(pool.handle, 0, "first"));
    EXPECT_FALSE(Hopper_TaskPool_AddrDecEx(pool.handle, 0, "first"));
    EXPECT_EQ(Hopper_GetLastError(nullptr), HOPPER_ERR_ZERO);
    EXPECT_EQ(Ready(pool.handle, 0), (Listing{{"third", 2}}));

    ASSERT_TRUE(Hopper_TaskPool_AddrIncEx(pool.handle, 0, "first"));
    EXPECT_EQ(Ready(pool.handle, 0), (Listing{{"first", 1}, {"third", 2}}))
        << "an address that becomes ready again keeps its place";

    ASSERT_TRUE(Hopper_TaskPool_AddrDeleteEx(pool.handle, 0, "third"));
    EXPECT_EQ(Ready(pool.handle, 0), (Listing{{"first", 1}})) << "delete forgets the count";
}

TEST(HopperPool, RefusesBadArgumentsWithTheirOwnCodes)
{
    ScopedPool pool(2);
    const HOPPER_HANDLE h = pool.handle;
    int index = 0;
    TAVRIN_HOPPER_TASKEVENT** events = nullptr;
    const std::string tooLong(128, 'x');
    HOPPER_HANDLE destroyed = Hopper_TaskPool_CreateEx(1);
    ASSERT_TRUE(Hopper_TaskPool_DestoryEx(destroyed));
    const struct
    {
        const char* what;
        std::function<bool()> call;
        uint64_t code;
    } cases[] = {
        {"pool count 0", [] { return Hopper_TaskPool_CreateEx(0) != nullptr; }, HOPPER_ERR_ARGUMENT},
        {"index out of range", [&] { return Hopper_TaskPool_AddrIncEx(h, 2, "a"); }, HOPPER_ERR_ARGUMENT},
        {"negative index", [&] { return Hopper_TaskPool_WaitEventEx(h, -1, 0); }, HOPPER_ERR_ARGUMENT},
        {"null address", [&] { return Hopper_TaskPool_AddrInsertEx(h, nullptr, &index); }, HOPPER_ERR_ARGUMENT},
        {"null index out", [&] { return Hopper_TaskPool_AddrInsertEx(h, "a", nullptr); }, HOPPER_ERR_ARGUMENT},
        {"128-byte address", [&] { return Hopper_TaskPool_AddrInsertEx(h, tooLong.c_str(), &index); },
         HOPPER_ERR_ARGUMENT},
        {"null list out", [&] { return Hopper_TaskPool_AddrGetEx(h, 0, nullptr, &index); }, HOPPER_ERR_ARGUMENT},
        {"null count out", [&] { return Hopper_TaskPool_AddrGetEx(h, 0, &events, nullptr); }, HOPPER_ERR_ARGUMENT},
        {"null address counted", [&] { return Hopper_TaskPool_AddrIncEx(h, 0, nullptr); }, HOPPER_ERR_ARGUMENT},
        {"null address deleted", [&] { return Hopper_TaskPool_AddrDeleteEx(h, 0, nullptr); }, HOPPER_ERR_ARGUMENT},
        {"unknown address deleted", [&] { return Hopper_TaskPool_AddrDeleteEx(h, 0, "b"); }, HOPPER_ERR_NOTFOUND},
        {"unknown address counted down", [&] { return Hopper_TaskPool_AddrDecEx(h, 0, "b"); }, HOPPER_ERR_NOTFOUND},
        {"destroyed handle", [&] { return Hopper_TaskPool_AddrInsertEx(destroyed, "a", &index); }, HOPPER_ERR_HANDLE},
        {"null handle", [] { return Hopper_TaskPool_ActiveEventEx(nullptr, 0); }, HOPPER_ERR_HANDLE},
        {"destroy twice", [&] { return Hopper_TaskPool_DestoryEx(destroyed); }, HOPPER_ERR_HANDLE},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(c.call()) << c.what;
        EXPECT_EQ(Hopper_GetLastError(nullptr), c.code) << c.what;
    }
    errno = ENOMEM;
    int sysError = 0;
    EXPECT_EQ(Hopper_GetLastError(&sysError), HOPPER_ERR_HANDLE);
    EXPECT_EQ(sysError, ENOMEM) << "the thread's errno is handed out beside the code";
    uint64_t otherThreadCode = 1;
    std::thread([&] { otherThreadCode = Hopper_GetLastError(nullptr); }).join();
    EXPECT_EQ(otherThreadCode, 0u) << "the code is per thread";
}

// Readiness and activation are per index; an activation releases every waiter, or is kept for the
// next wait once.
TEST(HopperPool, WaitEndsOnReadinessOrActivationOrTimesOut)
{
    ScopedPool pool(2);
    const int index = pool.Insert("a");
    EXPECT_FALSE(Hopper_TaskPool_WaitEventEx(pool.handle, index, 1));
    EXPECT_EQ(Hopper_GetLastError(nullptr), HOPPER_ERR_TIMEOUT);
    ASSERT_TRUE(Hopper_TaskPool_AddrIncEx(pool.handle, index, "a"));
    EXPECT_TRUE(Hopper_TaskPool_WaitEventEx(pool.handle, index, -1)) << "stays ready until the count drops";
    EXPECT_FALSE(Hopper_TaskPool_WaitEventEx(pool.handle, 1 - index, 0)) << "readiness is per index";

    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; i++) {
        waiters.emplace_back([&] { released += Hopper_TaskPool_WaitEventEx(pool.handle, 1, 5000) ? 1 : 0; });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(Hopper_TaskPool_ActiveEventEx(pool.handle, 1));
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(released, 3);
    EXPECT_FALSE(Hopper_TaskPool_WaitEventEx(pool.handle, 1, 0)) << "an activation that had waiters is spent";
    ASSERT_TRUE(Hopper_TaskPool_ActiveEventEx(pool.handle, 1));
    EXPECT_TRUE(Hopper_TaskPool_WaitEventEx(pool.handle, 1, 0));
    EXPECT_FALSE(Hopper_TaskPool_WaitEventEx(pool.handle, 1, 0)) << "kept for one wait only";
}

TEST(HopperPool, DestroyReleasesWaitersWithFalse)
{
    HOPPER_HANDLE handle = Hopper_TaskPool_CreateEx(1);
    std::atomic<bool> result{true};
    std::atomic<uint64_t> code{0};
    std::thread waiter([&] {
        result = Hopper_TaskPool_WaitEventEx(handle, 0, -1);
        code = Hopper_GetLastError(nullptr);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(Hopper_TaskPool_DestoryEx(handle));
    waiter.join();
    EXPECT_FALSE(result);
    EXPECT_EQ(code, HOPPER_ERR_DESTROYED);
}

}  // namespace
