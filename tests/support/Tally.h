#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// Tally: counts named happenings, so that a test waits for a named one instead of sleeping. Nothing
// is lost: a late wait still sees what came earlier.  All operations: [any thread]
class Tally {
public:
    void hit(const std::string& what) {
        // Notified under the lock: the waiter may destroy the tally as soon as it sees the count.
        std::lock_guard<std::mutex> lock(mLock);
        ++mCount[what];
        mOrder.push_back(what);
        mChanged.notify_all();
    }

    // True once `what` has happened at least `times` times; false after `limit`, with everything
    // counted so far on standard error.
    bool waitFor(const std::string& what, int times = 1,
                 std::chrono::seconds limit = std::chrono::seconds(30)) {
        std::unique_lock<std::mutex> lock(mLock);
        if (mChanged.wait_for(lock, limit, [&] { return mCount[what] >= times; })) return true;
        std::fprintf(stderr, "waited for %d x %s, counted:\n", times, what.c_str());
        for (const auto& [name, n] : mCount) std::fprintf(stderr, "  %s: %d\n", name.c_str(), n);
        return false;
    }

    int count(const std::string& what) const {
        std::lock_guard<std::mutex> lock(mLock);
        const auto found = mCount.find(what);
        return found != mCount.end() ? found->second : 0;
    }

    // All that has happened, in order.
    std::vector<std::string> order() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mOrder;
    }

private:
    mutable std::mutex mLock;
    std::condition_variable mChanged;
    std::map<std::string, int> mCount;
    std::vector<std::string> mOrder;
};
