// KtRecordingThreadManager: the thread manager of the simulated platform.
//
// It makes real threads through KtDefaultThreadManager, keeps a record of every request (entry,
// argument and the three class values) and can be told to refuse thread creation, so tests can
// drive the paths where no thread can be made.
#ifndef LORVEX_PLATFORM_KT_RECORDINGTHREADMANAGER_H
#define LORVEX_PLATFORM_KT_RECORDINGTHREADMANAGER_H

#include "Kt.h"

#include <mutex>
#include <vector>

class KtRecordingThreadManager : public KtThreadManager {
  public:
    struct Request {
        KtThreadEntry entry;
        void* argument;
        long stackClass;
        long priorityClass;
        long schedulingClass;
        bool refused;
    };

    KtRecordingThreadManager();
    ~KtRecordingThreadManager() override;

    KtThread* createThread(KtThreadEntry entry, void* argument, long stackClass, long priorityClass,
                           long schedulingClass) override;
    KtResult waitForThread(KtThread* thread, unsigned long ms) override;
    void releaseThread(KtThread* thread) override;
    KtThreadId getCurrentThreadId() override;

    /// Refuse the next count createThread calls (negative: refuse all until called again with 0).
    void refuseThreads(int count);
    std::vector<Request> requests() const;
    /// Threads created and not yet released.
    int liveThreads() const;

  private:
    KtDefaultThreadManager real_;
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    int refuse_ = 0;
    int live_ = 0;
};

#endif
