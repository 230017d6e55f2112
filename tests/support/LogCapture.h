#pragma once

#include <VXUtils.h>
#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

// LogCapture: keeps what is logged instead of printing it, and sets the library's log mask, both
// for as long as it lives. One at a time; make it before the threads that log, since the logger
// hook of a device is not synchronized.  Queries: [any thread]
class LogCapture {
public:
    struct Message {
        int priority;
        std::string tag;
        std::string text;
    };

    explicit LogCapture(uint32_t mask = 0x1f) : mOldMask(vexa::gVXLogLevel.exchange(mask)) {
        clear();
        __android_log_set_logger(&LogCapture::keep);
    }
    ~LogCapture() {
        __android_log_set_logger(__android_log_stderr_logger);
        vexa::gVXLogLevel = mOldMask;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Message> messages() const {
        std::lock_guard<std::mutex> lock(sKept.lock);
        return sKept.messages;
    }

    // How many messages contain `part`.
    int count(const std::string& part) const {
        std::lock_guard<std::mutex> lock(sKept.lock);
        return countLocked(part);
    }

    // How many messages have exactly this priority, tag and text.
    int count(int priority, const std::string& tag, const std::string& text) const {
        std::lock_guard<std::mutex> lock(sKept.lock);
        const auto same = [&](const Message& m) {
            return m.priority == priority && m.tag == tag && m.text == text;
        };
        return static_cast<int>(std::count_if(sKept.messages.begin(), sKept.messages.end(), same));
    }

    // Those of `parts`, each with `end` behind it, that are not in exactly one message.
    std::vector<std::string> missing(const std::vector<std::string>& parts,
                                     const std::string& end = "") const {
        std::vector<std::string> result;
        for (const std::string& part : parts) {
            if (count(part + end) != 1) result.push_back(part);
        }
        return result;
    }

    // True once at least `times` messages contain `part`; false after `limit`.
    bool waitFor(const std::string& part, int times = 1,
                 std::chrono::seconds limit = std::chrono::seconds(30)) const {
        std::unique_lock<std::mutex> lock(sKept.lock);
        return sKept.changed.wait_for(lock, limit, [&] { return countLocked(part) >= times; });
    }

    void clear() {
        std::lock_guard<std::mutex> lock(sKept.lock);
        sKept.messages.clear();
    }

private:
    // Static: a thread may still be inside keep() when the capture ends.
    struct Kept {
        std::mutex lock;
        std::condition_variable changed;
        std::vector<Message> messages;
    };
    inline static Kept sKept;

    static void keep(const __android_log_message* message) {
        std::lock_guard<std::mutex> lock(sKept.lock);
        sKept.messages.push_back({message->priority, message->tag, message->message});
        sKept.changed.notify_all();
    }

    static int countLocked(const std::string& part) {
        const auto contains = [&](const Message& m) {
            return m.text.find(part) != std::string::npos;
        };
        return static_cast<int>(
            std::count_if(sKept.messages.begin(), sKept.messages.end(), contains));
    }

    const uint32_t mOldMask;
};

// With a LogCapture `log` in scope: one message with each of these parts; one guard failure of each
// of these conditions; with a tag `kTag`, too: one message of this priority and exactly this text.
#define EXPECT_LOGS(...) EXPECT_EQ(log.missing({__VA_ARGS__}), std::vector<std::string>())
#define EXPECT_GUARD(...) \
    EXPECT_EQ(log.missing({__VA_ARGS__}, " : Line# "), std::vector<std::string>())
#define EXPECT_LOGGED(priority, text) EXPECT_EQ(log.count(ANDROID_LOG_##priority, kTag, text), 1)
