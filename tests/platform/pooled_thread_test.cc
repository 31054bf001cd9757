// Short-lived threads on stacks that are kept and reused: the work runs, a
// joined thread's stack serves the next one, the pool stays bounded, and a
// thread that overflows its stack faults rather than writing below it.
#include "platform/pooled_thread.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace orv {
namespace {

// The address of a local of the thread running it: somewhere on its stack.
uintptr_t StackAddressOfAThread() {
    uintptr_t address = 0;
    PooledThread thread;
    std::string why;
    EXPECT_TRUE(thread.Start(
        [&address] {
            volatile char local = 0;
            address = reinterpret_cast<uintptr_t>(&local);
        },
        &why))
        << why;
    thread.Join();
    return address;
}

TEST(PooledThreadTest, AThreadRunsOnAPooledStackThatComesBackWhenItIsJoined) {
    StackPool& pool = StackPool::Instance();
    char* stack = static_cast<char*>(pool.Take());
    ASSERT_NE(stack, nullptr);
    pool.Give(stack);
    const auto onThatStack = [stack](uintptr_t address) {
        return address >= reinterpret_cast<uintptr_t>(stack) &&
               address < reinterpret_cast<uintptr_t>(stack) + StackPool::kStackSize;
    };

    const uintptr_t first = StackAddressOfAThread();
    ASSERT_NE(first, 0u) << "the work did not run";
    EXPECT_TRUE(onThatStack(first));
    EXPECT_TRUE(onThatStack(StackAddressOfAThread())) << "not given back at the join";

    // A thread never joined by hand is joined when it goes, and its stack
    // comes back all the same.
    {
        PooledThread thread;
        std::string why;
        ASSERT_TRUE(thread.Start([] {}, &why)) << why;
        PooledThread moved(std::move(thread));
        EXPECT_FALSE(thread.Joinable());
        EXPECT_TRUE(moved.Joinable());
    }
    EXPECT_EQ(pool.Take(), stack);
}

TEST(PooledThreadTest, ThePoolKeepsABoundedNumberOfStacks) {
    // More threads at once than the pool keeps: all run, and once they are
    // joined the pool holds its bound, the rest given back to the kernel.
    std::atomic<size_t> ran{0};
    std::list<PooledThread> threads;
    // Gone before the threads are joined, should the test stop early.
    std::promise<void> go;
    std::shared_future<void> started = go.get_future().share();
    for (size_t i = 0; i < StackPool::kKeptStacks + 16; ++i) {
        threads.emplace_back();
        std::string why;
        ASSERT_TRUE(threads.back().Start(
            [&ran, started] {
                started.wait();
                ++ran;
            },
            &why))
            << why;
    }
    go.set_value();
    for (PooledThread& thread : threads) {
        thread.Join();
    }
    EXPECT_EQ(ran.load(), StackPool::kKeptStacks + 16);
    EXPECT_EQ(StackPool::Instance().Kept(), StackPool::kKeptStacks);
}

// Past the end of a pool's stack, in frames smaller than a page so that none
// steps over the guard. The frame's address escapes, so the compiler keeps
// all of it; the read after the call keeps the recursion from becoming a
// loop; sanitizers leave the frames alone.
__attribute__((noinline, no_sanitize_address)) size_t Recurse(size_t depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    asm volatile("" : : "r"(frame) : "memory");
    const size_t deeper = depth == 0 ? 0 : Recurse(depth - 1);
    return deeper + static_cast<size_t>(frame[0]);
}

TEST(PooledThreadDeathTest, AThreadThatOverflowsItsStackFaultsRatherThanWritingBelowIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Writable memory right below the next stack's guard: without the guard,
    // the overflow would run on into it and the thread end as if nothing
    // had happened. A stack mapped into a gap between mappings may have
    // none free below it; later ones lie lower.
    const size_t below = 256 * 1024;
    std::vector<void*> taken;
    void* writable = MAP_FAILED;
    while (writable == MAP_FAILED && taken.size() < 16) {
        void* stack = StackPool::Instance().Take();
        ASSERT_NE(stack, nullptr);
        taken.push_back(stack);
        char* guard = static_cast<char*>(stack) - sysconf(_SC_PAGESIZE);
        writable = mmap(guard - below, below, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    }
    if (writable == MAP_FAILED) {
        GTEST_SKIP() << "no stack with free memory below it";
    }
    // The pool hands out the last stack given back first.
    for (void* stack : taken) {
        StackPool::Instance().Give(stack);
    }
    EXPECT_DEATH(
        {
            PooledThread thread;
            std::string why;
            (void)thread.Start([] { (void)Recurse(StackPool::kStackSize / 512 + 128); }, &why);
            thread.Join();
        },
        "");
}

}  // namespace
}  // namespace orv
