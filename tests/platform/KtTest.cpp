// The thread services: the re-entrant mutex and its guards, waits, the gate, threads, and loading
// libraries by their Windows names.
#include "Kt.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

TEST(KtMutex, IsReentrantForItsOwnerAndExcludesOthersAndTheGuardsReleaseIt) {
    KtMutex* m = KtMutex::create();
    std::atomic<bool> taken{false};
    std::thread other;
    {
        KtScopedLock<KtMutex> outer(m);
        {
            KtScopedLock<KtMutex> inner(m);  // the owner locks again without blocking
            other = std::thread([&] {
                KtScopedLock<KtMutex> guard(m);
                taken = true;
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_FALSE(taken.load()) << "one unlock per lock";
        {
            KtScopedUnlock<KtMutex> out(m);  // lets the other thread through, then takes it back
            other.join();
        }
        EXPECT_TRUE(taken.load());
        outer.unlock();
        EXPECT_FALSE(outer.holds());
    }                                                            // a released guard does not unlock again
    std::thread([&] { KtScopedLock<KtMutex> free(m); }).join();  // nobody still holds it
    delete m;
}

TEST(KtWaitNotify, WaitsTimeOutReleaseEveryLevelOfAHoldAndWakeOneOrAll) {
    KtWaitNotify w;
    {
        KtScopedLock<KtWaitNotify> held(w);
        w.notify();  // nobody waits, so nothing is kept for the next wait
        w.notifyAll();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(KT_TIMEOUT, w.wait(50));
        EXPECT_GE(lxtest::msSince(start), 45.0);
        EXPECT_EQ(KT_TIMEOUT, w.wait(0));
    }
    // Each waiter holds the lock three times: the others get in only if a wait lets go of all three.
    std::atomic<int> waiting{0};
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            KtScopedLock<KtWaitNotify> one(w);
            KtScopedLock<KtWaitNotify> two(w);
            KtScopedLock<KtWaitNotify> three(w);
            ++waiting;
            if (w.wait(10000) == 1) {
                ++woken;
            }
        });
    }
    ASSERT_TRUE(lxtest::waitUntil([&] { return waiting.load() == 3; }));
    const auto signal = [&](bool all) {
        KtScopedLock<KtWaitNotify> held(w);
        all ? w.notifyAll() : w.notify();
    };
    signal(false);
    ASSERT_TRUE(lxtest::waitUntil([&] { return woken.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1, woken.load()) << "notify wakes exactly one waiter";
    signal(true);
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(3, woken.load());
}

struct ThreadArg {
    KtThreadManager* manager;
    KtGateLock* gate;
    std::atomic<KtThreadId> seen{0};
    std::atomic<int> through{0};
};

long recordIdAndWait(void* p) {
    auto* arg = static_cast<ThreadArg*>(p);
    arg->seen = arg->manager->getCurrentThreadId();
    if (arg->gate->wait(KT_INFINITE) == 1) {
        ++arg->through;
    }
    return 0;
}

TEST(KtThreads, AGateHoldsEveryWaiterUntilOpenedAndTheManagerWaitsForThreadsToEnd) {
    KtDefaultThreadManager manager;
    ThreadArg arg{&manager, KtGateLock::create()};
    EXPECT_FALSE(arg.gate->isOpen());
    EXPECT_EQ(KT_TIMEOUT, arg.gate->wait(20));
    KtThread* thread = manager.createThread(recordIdAndWait, &arg, 4, 1, 1);
    ASSERT_NE(nullptr, thread);
    const KtThreadId id = thread->getId();
    EXPECT_NE(0u, id);
    EXPECT_NE(manager.getCurrentThreadId(), id);
    ASSERT_EQ(1, thread->start());
    std::thread other([&] {
        if (arg.gate->wait(KT_INFINITE) == 1) {
            ++arg.through;
        }
    });
    EXPECT_EQ(KT_TIMEOUT, manager.waitForThread(thread, 30));
    EXPECT_EQ(0, arg.through.load());
    arg.gate->open();
    EXPECT_EQ(1, manager.waitForThread(thread, 10000));
    other.join();
    EXPECT_EQ(2, arg.through.load());
    EXPECT_EQ(id, arg.seen.load());
    EXPECT_EQ(1, arg.gate->wait(0)) << "an open gate stays open";
    manager.releaseThread(thread);
    arg.gate->close();
    EXPECT_EQ(KT_TIMEOUT, arg.gate->wait(10));
    // A thread that never started counts as ended.
    KtThread* idle = manager.createThread(recordIdAndWait, &arg, 4, 1, 1);
    EXPECT_EQ(1, manager.waitForThread(idle, 0));
    manager.releaseThread(idle);
    delete arg.gate;
}

TEST(KtWin32Library, MapsWindowsNamesAndLoadsByThem) {
    EXPECT_STREQ("liblx12_rmaplayer.so", KtWin32Library::mapLibraryName("lx12_rmaplayer.DLL"));
    EXPECT_STREQ("/opt/x/libfoo.so", KtWin32Library::mapLibraryName("/opt/x/libfoo.so"));
    EXPECT_EQ(nullptr, KtWin32Library::LoadWin32Library(nullptr));
    KtModule libc = KtWin32Library::LoadWin32Library("/lib/x86_64-linux-gnu/libc.so.6");  // by path
    if (libc != nullptr) {
        EXPECT_EQ(nullptr, KtWin32Library::GetProcAddress(libc, "no_such_symbol_in_libc"));
        KtWin32Library::FreeLibrary(libc);
    }
}

}  // namespace
