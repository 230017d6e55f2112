// The host's log and properties; the other parts of the platform have tests of their own.
#include <android/log.h>
#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Scale.h"

namespace {

// ---- Log --------------------------------------------------------------------------------------

// Standard error as a socket that keeps every write apart.
class StandardError {
public:
    StandardError() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, mEnds), 0);
        dup2(mEnds[1], STDERR_FILENO);
        close(mEnds[1]);
    }
    ~StandardError() {
        dup2(mOld, STDERR_FILENO);
        close(mOld);
        close(mEnds[0]);
    }

    // The next write; "" when there is none within the limit.
    std::string next() {
        pollfd ready = {mEnds[0], POLLIN, 0};
        if (poll(&ready, 1, 30000) != 1) return "";
        char text[4096];
        const ssize_t size = recv(mEnds[0], text, sizeof(text), 0);
        return size > 0 ? std::string(text, static_cast<size_t>(size)) : "";
    }

    bool isEmpty() {
        pollfd ready = {mEnds[0], POLLIN, 0};
        return poll(&ready, 1, 0) == 0;
    }

private:
    const int mOld = dup(STDERR_FILENO);
    int mEnds[2] = {-1, -1};
};

// Catches: a line in several writes, without its end, or with the wrong letter, thread or tag.
TEST(Log, TheDefaultWriterMakesOneLineOfAMessage) {
    StandardError error;
    const struct {
        int priority;
        char letter;
    } cases[] = {{ANDROID_LOG_VERBOSE, 'V'},
                 {ANDROID_LOG_DEBUG, 'D'},
                 {ANDROID_LOG_INFO, 'I'},
                 {ANDROID_LOG_WARN, 'W'},
                 {ANDROID_LOG_ERROR, 'E'},
                 {ANDROID_LOG_FATAL, 'F'},
                 {ANDROID_LOG_UNKNOWN, '?'},
                 {1234, '?'},
                 {-1, '?'}};
    for (const auto& c : cases) {
        if (c.priority < ANDROID_LOG_VERBOSE) __android_log_set_minimum_priority(c.priority);
        EXPECT_EQ(__android_log_print(c.priority, "Tag", "%s: %d", "number", 5), 1);
        __android_log_set_minimum_priority(ANDROID_LOG_DEFAULT);
        const std::string line = error.next();
        int month = 0, day = 0, hour = 0, minute = 0, second = 0, ms = 0, end = 0;
        char letter = 0;
        long thread = 0;
        EXPECT_EQ(sscanf(line.c_str(), "%2d-%2d %2d:%2d:%2d.%3d %c %ld Tag: number: 5%n", &month,
                         &day, &hour, &minute, &second, &ms, &letter, &thread, &end),
                  8)
            << line;
        EXPECT_EQ(letter, c.letter);
        EXPECT_EQ(thread, syscall(SYS_gettid));
        EXPECT_EQ(line.substr(static_cast<size_t>(end)), "\n") << line;
    }
    EXPECT_TRUE(error.isEmpty());
}

// Catches: lines of several threads that run into each other.
TEST(Log, LinesOfSeveralThreadsStayWhole) {
    StandardError error;
    constexpr int kThreads = 4;
    const int each = scaled(2000);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, each] {
            for (int i = 0; i < each; ++i)
                __android_log_print(ANDROID_LOG_INFO, "T", "%d-%d.", t, i);
        });
    }
    std::vector<std::string> lines;
    for (int i = 0; i < kThreads * each; ++i) {
        lines.push_back(error.next());
        if (lines.back().empty()) break;
    }
    for (auto& thread : threads) thread.join();
    std::set<std::string> seen;
    for (const std::string& line : lines) {
        const size_t text = line.find(" T: ");
        ASSERT_TRUE(text != std::string::npos && line.find(".\n") == line.size() - 2) << line;
        seen.insert(line.substr(text));
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * each));
}

// Catches: text beyond the device's limit that is kept, or runs over the buffer; a null tag or text
// that is followed.
TEST(Log, LongTextIsCutAndNullIsNoCrash) {
    const std::string longText(5000, 'x');
    {
        LogCapture log;
        __android_log_print(ANDROID_LOG_INFO, "Tag", "%s", longText.c_str());
        __android_log_write(ANDROID_LOG_INFO, nullptr, nullptr);
        ASSERT_EQ(log.messages().size(), 2u);
        EXPECT_EQ(log.messages()[0].text, std::string(1023, 'x'));
        EXPECT_EQ(log.messages()[1].tag, program_invocation_short_name);
        EXPECT_EQ(log.messages()[1].text, "");
    }
    StandardError error;
    __android_log_write(ANDROID_LOG_INFO, longText.c_str(), longText.c_str());
    const std::string written = error.next();
    EXPECT_NE(written.find(std::string(1023, 'x') + "\n"), std::string::npos);
    EXPECT_LT(written.size(), 1400u);
}

// Catches: logging a failure that changes the errno which says why, also where standard error is
// closed.
TEST(Log, ErrnoIsKept) {
    const int standardError = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    errno = ENOENT;
    const int printed = __android_log_print(ANDROID_LOG_INFO, "Tag", "text");
    const int kept = errno;
    dup2(standardError, STDERR_FILENO);
    close(standardError);
    EXPECT_EQ(kept, ENOENT);
    EXPECT_EQ(printed, 1);
}

void countMessage(const __android_log_message* message) {
    static int sCount = 0;
    EXPECT_EQ(message->struct_size, sizeof(__android_log_message));
    EXPECT_EQ(message->priority, ANDROID_LOG_WARN);
    EXPECT_STREQ(message->tag, "Tag");
    EXPECT_STREQ(message->message, "text");
    errno = ++sCount;
}

// Catches: a logger that is not asked, gets half a message, or cannot be taken out again.
TEST(Log, ALoggerTakesThePlaceOfTheDefaultOne) {
    StandardError error;
    __android_log_set_logger(countMessage);
    errno = 0;
    EXPECT_EQ(__android_log_write(ANDROID_LOG_WARN, "Tag", "text"), 1);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(error.isEmpty());
    for (__android_logger_function back :
         {__android_log_stderr_logger, __android_logger_function()}) {
        __android_log_set_logger(countMessage);
        __android_log_set_logger(back);
        __android_log_write(ANDROID_LOG_WARN, "Tag", "text");
        EXPECT_NE(error.next(), "");
    }
}

// Catches: messages that are dropped although nobody asked for it, as other hosts' logs do with DEBUG.
TEST(Log, EverythingIsLetThroughUntilAMinimumIsSet) {
    LogCapture log;
    EXPECT_EQ(__android_log_write(ANDROID_LOG_VERBOSE, "Tag", "text"), 1);
    EXPECT_EQ(__android_log_is_loggable(ANDROID_LOG_INFO, "Tag", ANDROID_LOG_WARN), 0);
    EXPECT_EQ(__android_log_is_loggable(ANDROID_LOG_WARN, "Tag", ANDROID_LOG_WARN), 1);
    EXPECT_EQ(__android_log_set_minimum_priority(ANDROID_LOG_ERROR), ANDROID_LOG_DEFAULT);
    EXPECT_EQ(__android_log_get_minimum_priority(), ANDROID_LOG_ERROR);
    EXPECT_LE(__android_log_write(ANDROID_LOG_WARN, "Tag", "text"), 0);
    EXPECT_LE(__android_log_print(ANDROID_LOG_WARN, "Tag", "text"), 0);
    EXPECT_EQ(__android_log_write(ANDROID_LOG_ERROR, "Tag", "text"), 1);
    EXPECT_EQ(__android_log_set_minimum_priority(ANDROID_LOG_DEFAULT), ANDROID_LOG_ERROR);
    EXPECT_EQ(log.count("text"), 2);
}

// ---- Properties -------------------------------------------------------------------------------

// The value as property_get gives it, or what went wrong.
std::string valueOf(const char* key, const char* fallback = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, '#', sizeof(value));
    const int length = property_get(key, value, fallback);
    if (length < 0 || length >= PROPERTY_VALUE_MAX || value[length] != '\0')
        return "not terminated";
    return static_cast<size_t>(length) == strlen(value) ? value : "another length";
}

// Catches: an empty property that hides the default, values that are not cut or run over the buffer.
TEST(Properties, AValueThatIsMissingOrEmptyIsTheDefault) {
    const std::string full(91, 'v');
    EXPECT_EQ(valueOf("test.key"), "");
    EXPECT_EQ(valueOf("test.key", "other"), "other");
    EXPECT_EQ(valueOf("test.key", (full + "more").c_str()), full);
    EXPECT_EQ(valueOf(nullptr, "other"), "other");

    EXPECT_EQ(property_set("test.key", full.c_str()), 0);
    EXPECT_EQ(valueOf("test.key", "other"), full);
    for (const char* empty : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(property_set("test.key", "1f"), 0);
        EXPECT_EQ(valueOf("test.key", "other"), "1f");
        EXPECT_EQ(property_set("test.key", empty), 0);
        EXPECT_EQ(valueOf("test.key"), "");
        EXPECT_EQ(valueOf("test.key", "other"), "other");
    }
}

// Catches: a refused value that is stored all the same, or takes the old one away.
TEST(Properties, WhatADeviceRefusesIsRefused) {
    const std::string tooLong(92, 'v');
    EXPECT_EQ(property_set("test.key", "old"), 0);
    EXPECT_LT(property_set("test.key", tooLong.c_str()), 0);
    EXPECT_EQ(valueOf("test.key"), "old");
    EXPECT_EQ(property_set("test.key", ""), 0);
    EXPECT_LT(property_set(nullptr, "value"), 0);
    EXPECT_LT(property_set("", "value"), 0);
    EXPECT_EQ(property_set("ro.test.key", tooLong.c_str()), 0);
    EXPECT_EQ(valueOf("ro.test.key"), tooLong.substr(0, 91));
    EXPECT_EQ(property_set("ro.test.key", ""), 0);
}

// Catches: a log mask given in the environment that is not heard, or outlives a property that is set.
TEST(Properties, WhatIsNotSetComesFromTheEnvironment) {
    setenv("TEST_VEXA_MASK2", "1F", 1);
    EXPECT_EQ(valueOf("test.vexa.mask2", "3"), "1F");
    EXPECT_EQ(property_set("test.vexa.mask2", "8"), 0);
    EXPECT_EQ(valueOf("test.vexa.mask2", "3"), "8");
    EXPECT_EQ(property_set("test.vexa.mask2", ""), 0);
    EXPECT_EQ(valueOf("test.vexa.mask2", "3"), "1F");
    setenv("TEST_VEXA_MASK2", std::string(200, 'v').c_str(), 1);
    EXPECT_EQ(valueOf("test.vexa.mask2", "3"), std::string(91, 'v'));
    unsetenv("TEST_VEXA_MASK2");
    EXPECT_EQ(valueOf("test.vexa.mask2", "3"), "3");
}

// Catches: a torn value, or a data race, when threads set and read one property.
TEST(Properties, ThreadsSetAndReadWholeValues) {
    const std::string values[] = {std::string(90, 'a'), std::string(40, 'b')};
    EXPECT_EQ(property_set("test.key", values[0].c_str()), 0);
    std::vector<std::thread> threads;
    for (const std::string& mine : values) {
        threads.emplace_back([&] {
            for (int i = 0; i < scaled(2000); ++i) {
                property_set("test.key", mine.c_str());
                const std::string seen = valueOf("test.key");
                EXPECT_TRUE(seen == values[0] || seen == values[1]) << seen;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(property_set("test.key", ""), 0);
}

}  // namespace
