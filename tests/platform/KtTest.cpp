#include "Kt.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

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
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            EXPECT_FALSE(taken.load());
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

TEST(KtWaitNotify, WaitTimesOutAndANotifyWithoutWaitersIsNotKept) {
    KtWaitNotify w;
    w.lock();
    w.notify();
    w.notifyAll();
    const auto start = Clock::now();
    EXPECT_EQ(KT_TIMEOUT, w.wait(50));
    EXPECT_GE(lxtest::msSince(start), 45.0);
    EXPECT_EQ(KT_TIMEOUT, w.wait(0));
    w.unlock();
}

TEST(KtWaitNotify, WaitReleasesEveryLevelOfARecursiveHold) {
    KtWaitNotify w;
    std::atomic<bool> waiting{false};
    KtResult result = 0;
    std::thread waiter([&] {
        w.lock();
        w.lock();
        w.lock();
        waiting = true;
        result = w.wait(KT_INFINITE);
        w.unlock();
        w.unlock();
        w.unlock();
    });
    ASSERT_TRUE(lxtest::waitUntil([&] { return waiting.load(); }));
    w.lock();  // must not block although the waiter held the lock three times
    w.notify();
    w.unlock();
    waiter.join();
    EXPECT_EQ(1, result);
    w.lock();
    w.unlock();
}

TEST(KtWaitNotify, NotifyWakesOneAndNotifyAllWakesEveryone) {
    KtWaitNotify w;
    std::atomic<int> waiting{0};
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            w.lock();
            ++waiting;
            if (w.wait(10000) == 1) {
                ++woken;
            }
            w.unlock();
        });
    }
    ASSERT_TRUE(lxtest::waitUntil([&] { return waiting.load() == 3; }));
    w.lock();
    w.notify();
    w.unlock();
    ASSERT_TRUE(lxtest::waitUntil([&] { return woken.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1, woken.load()) << "notify wakes exactly one waiter";
    w.lock();
    w.notifyAll();
    w.unlock();
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(3, woken.load());
}

TEST(KtGateLock, StaysOpenUntilClosed) {
    KtGateLock* gate = KtGateLock::create();
    EXPECT_FALSE(gate->isOpen());
    EXPECT_EQ(KT_TIMEOUT, gate->wait(20));
    std::atomic<int> through{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            if (gate->wait(KT_INFINITE) == 1) {
                ++through;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(0, through.load());
    gate->open();
    for (auto& t : waiters) {
        t.join();
    }
    EXPECT_EQ(3, through.load());
    EXPECT_EQ(1, gate->wait(0)) << "an open gate stays open";
    gate->close();
    EXPECT_EQ(KT_TIMEOUT, gate->wait(10));
    delete gate;
}

struct ThreadArg {
    KtThreadManager* manager;
    KtGateLock* gate;
    std::atomic<KtThreadId> seen;
};

long recordIdAndWait(void* p) {
    auto* arg = static_cast<ThreadArg*>(p);
    arg->seen = arg->manager->getCurrentThreadId();
    arg->gate->wait(KT_INFINITE);
    return 0;
}

TEST(KtThreadManager, ThreadsKnowTheirIdAndAreWaitedForUntilTheyEnd) {
    KtDefaultThreadManager manager;
    ThreadArg arg{&manager, KtGateLock::create(), {0}};
    KtThread* thread = manager.createThread(recordIdAndWait, &arg, 4, 1, 1);
    ASSERT_NE(nullptr, thread);
    const KtThreadId id = thread->getId();
    EXPECT_NE(0u, id);
    EXPECT_NE(manager.getCurrentThreadId(), id);
    ASSERT_EQ(1, thread->start());
    EXPECT_EQ(KT_TIMEOUT, manager.waitForThread(thread, 30));
    arg.gate->open();
    EXPECT_EQ(1, manager.waitForThread(thread, 10000));
    EXPECT_EQ(id, arg.seen.load());
    manager.releaseThread(thread);
    // A thread that never started counts as ended.
    KtThread* idle = manager.createThread(recordIdAndWait, &arg, 4, 1, 1);
    EXPECT_EQ(1, manager.waitForThread(idle, 0));
    manager.releaseThread(idle);
    delete arg.gate;
}

TEST(KtWin32Library, MapsWindowsNamesAndLoadsByThem) {
    EXPECT_STREQ("libqlm13_dshow.so", KtWin32Library::mapLibraryName("qlm13_dshow.dll"));
    EXPECT_STREQ("liblx12_rmaplayer.so", KtWin32Library::mapLibraryName("lx12_rmaplayer.DLL"));
    EXPECT_STREQ("/opt/x/libfoo.so", KtWin32Library::mapLibraryName("/opt/x/libfoo.so"));
    EXPECT_EQ(nullptr, KtWin32Library::LoadWin32Library("no_such_library_here.dll"));
    EXPECT_EQ(nullptr, KtWin32Library::LoadWin32Library(nullptr));
    // The C library is always there; load it by path and look a symbol up.
    KtModule libc = KtWin32Library::LoadWin32Library("/lib/x86_64-linux-gnu/libc.so.6");
    if (libc != nullptr) {
        EXPECT_NE(nullptr, KtWin32Library::GetProcAddress(libc, "strlen"));
        EXPECT_EQ(nullptr, KtWin32Library::GetProcAddress(libc, "no_such_symbol_in_libc"));
        KtWin32Library::FreeLibrary(libc);
    }
}

}  // namespace
