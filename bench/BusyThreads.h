// BusyThreads: threads that take processor time from everything else, as a codec's own do.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

class BusyThreads {
public:
    explicit BusyThreads(int64_t count) {
        for (int64_t i = 0; i < count; ++i) {
            mThreads.emplace_back([this] {
                while (!mStop.load(std::memory_order_relaxed)) {
                }
            });
        }
    }
    ~BusyThreads() {
        mStop = true;
        for (auto& thread : mThreads) thread.join();
    }

private:
    std::atomic<bool> mStop{false};
    std::vector<std::thread> mThreads;
};
