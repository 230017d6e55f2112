// The host's log and properties; the other parts of the platform have tests of their own.
#include <android/log.h>
#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <thread>

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
    std::string next(int milliseconds = 30000) {
        pollfd ready = {mEnds[0], POLLIN, 0};
        if (poll(&ready, 1, milliseconds) != 1) return "";
        char text[4096];
        const ssize_t size = recv(mEnds[0], text, sizeof(text), 0);
        return size > 0 ? std::string(text, static_cast<size_t>(size)) : "";
    }

private:
    const int mOld = dup(STDERR_FILENO);
    int mEnds[2] = {-1, -1};
};

// Catches: a line in several writes, run into another thread's, without its end, or with the wrong
// letter, thread or tag; a priority that is dropped unasked or read beyond the letters.
TEST(Log, TheDefaultWriterMakesOneLineOfAMessage) {
    StandardError error;
    __android_log_set_minimum_priority(-1);
    const int each = scaled(500);
    const auto log = [each] {
        for (int i = 0; i < each; ++i) {
            for (int priority : {1234, -1, 0, 1, 2, 3, 4, 5, 6, 7}) {
                EXPECT_EQ(__android_log_print(priority, "Tag", "%d of %ld", priority,
                                              syscall(SYS_gettid)),
                          1);
            }
        }
    };
    std::thread threads[] = {std::thread(log), std::thread(log)};
    for (int i = 0; i < 2 * each * 10; ++i) {
        const std::string line = error.next();
        int priority = 0, end = 0;
        char letter = 0;
        long thread = 0, sender = 0;
        sscanf(line.c_str(), "%*2d-%*2d %*2d:%*2d:%*2d.%*3d %c %ld Tag: %d of %ld%n", &letter,
               &thread, &priority, &sender, &end);
        EXPECT_EQ(letter, priority >= 0 && priority < 8 ? "??VDIWEF"[priority] : '?');
        EXPECT_EQ(thread, sender);
        ASSERT_EQ(line.substr(static_cast<size_t>(end)), "\n") << line;
    }
    for (auto& thread : threads) thread.join();
    __android_log_set_minimum_priority(ANDROID_LOG_DEFAULT);
    EXPECT_EQ(error.next(0), "");
}

// Catches: text beyond the device's limit that is kept, or runs over the buffer; a null tag or text
// that is followed; a logger that is ignored, gets half a message, or cannot be taken out again;
// logging a failure that changes the errno of it, by a logger that does or where standard error is
// closed.
TEST(Log, LongTextIsCutForTheLoggerInPlaceAndNullIsNoCrash) {
    const std::string longText(5000, 'x');
    const auto expectErrnoKept = [] {
        errno = ENOENT;
        __android_log_print(ANDROID_LOG_INFO, "Tag", "text");
        EXPECT_EQ(errno, ENOENT);
    };
    StandardError error;
    {
        LogCapture log;
        __android_log_print(ANDROID_LOG_WARN, "Tag", "%s", longText.c_str());
        __android_log_write(ANDROID_LOG_INFO, nullptr, nullptr);
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, "Tag", std::string(1023, 'x')), 1);
        EXPECT_EQ(log.count(ANDROID_LOG_INFO, program_invocation_short_name, ""), 1);
        EXPECT_EQ(error.next(0), "");
        __android_log_set_logger(nullptr);  // the default one again
        __android_log_write(ANDROID_LOG_INFO, longText.c_str(), longText.c_str());
    }
    const std::string written = error.next();
    EXPECT_NE(written.find(std::string(1023, 'x') + "\n"), std::string::npos);
    EXPECT_LT(written.size(), 1400u);
    __android_log_set_logger([](const __android_log_message*) { errno = EIO; });
    expectErrnoKept();
    __android_log_set_logger(nullptr);
    close(STDERR_FILENO);
    expectErrnoKept();
}

// Catches: messages that are dropped without a minimum, as other hosts' logs do with DEBUG, or let
// through below it.
TEST(Log, EverythingIsLetThroughUntilAMinimumIsSet) {
    LogCapture log;
    EXPECT_EQ(__android_log_write(ANDROID_LOG_VERBOSE, "Tag", "text"), 1);
    EXPECT_EQ(__android_log_is_loggable(ANDROID_LOG_INFO, "Tag", ANDROID_LOG_WARN), 0);
    EXPECT_EQ(__android_log_is_loggable(ANDROID_LOG_WARN, "Tag", ANDROID_LOG_WARN), 1);
    EXPECT_EQ(__android_log_set_minimum_priority(ANDROID_LOG_ERROR), ANDROID_LOG_DEFAULT);
    EXPECT_LE(__android_log_write(ANDROID_LOG_WARN, "Tag", "text"), 0);
    EXPECT_LE(__android_log_print(ANDROID_LOG_WARN, "Tag", "text"), 0);
    EXPECT_EQ(__android_log_write(ANDROID_LOG_ERROR, "Tag", "text"), 1);
    EXPECT_EQ(__android_log_get_minimum_priority(), ANDROID_LOG_ERROR);
    EXPECT_EQ(__android_log_set_minimum_priority(ANDROID_LOG_DEFAULT), ANDROID_LOG_ERROR);
    EXPECT_EQ(log.count("text"), 2);
}

// ---- Properties -------------------------------------------------------------------------------

// The value as property_get gives it, or what went wrong.
std::string valueOf(const char* key, const char* fallback = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, '#', sizeof(value));
    const int length = property_get(key, value, fallback);
    return length == static_cast<int>(strnlen(value, sizeof(value))) ? value : "another length";
}

// Catches: an empty property that hides the default, values that are not cut or run over the
// buffer, a refused value that is stored or takes the old one away, an environment that is not
// heard or outlives a property that is set.
TEST(Properties, AValueIsTheOneSetOrTheEnvironmentsOrTheDefault) {
    const std::string full(91, 'v');
    const std::string tooLong(92, 'v');
    const struct {
        const char *key, *environment, *set;
        bool refused;
        std::string expected;
    } cases[] = {
        {"test.vexa.mask2", nullptr, nullptr, false, "default"},
        {"test.vexa.mask2", nullptr, "", false, "default"},
        {"test.vexa.mask2", nullptr, "8", false, "8"},
        {"test.vexa.mask2", nullptr, full.c_str(), false, full},
        {"test.vexa.mask2", nullptr, tooLong.c_str(), true, "old"},
        {"ro.test.key", nullptr, tooLong.c_str(), false, full},
        {"rotation.key", nullptr, tooLong.c_str(), true, "old"},
        {"test.vexa.mask2", "1F", "", false, "1F"},
        {"test.vexa.mask2", "1F", "8", false, "8"},
        {"test.vexa.mask2", tooLong.c_str(), "", false, full},
        {nullptr, nullptr, "8", true, "default"},
        {"", nullptr, "8", true, "default"},
    };
    for (const auto& c : cases) {
        if (c.environment != nullptr) setenv("TEST_VEXA_MASK2", c.environment, 1);
        property_set(c.key, "old");
        EXPECT_EQ(property_set(c.key, c.set) < 0, c.refused);
        EXPECT_EQ(valueOf(c.key, "default"), c.expected);
        unsetenv("TEST_VEXA_MASK2");
        property_set(c.key, "");
        EXPECT_EQ(valueOf(c.key), "");
        EXPECT_EQ(valueOf(c.key, tooLong.c_str()), full);
    }
}

// Catches: a torn value, or a data race, when threads set and read one property.
TEST(Properties, ThreadsSetAndReadWholeValues) {
    const std::string values[] = {std::string(90, 'a'), std::string(40, 'b')};
    property_set("test.key", values[0].c_str());
    const auto setAndRead = [&](const std::string& mine) {
        for (int i = 0; i < scaled(2000); ++i) {
            property_set("test.key", mine.c_str());
            const std::string seen = valueOf("test.key");
            EXPECT_TRUE(seen == values[0] || seen == values[1]) << seen;
        }
    };
    std::thread other([&] { setAndRead(values[1]); });
    setAndRead(values[0]);
    other.join();
    EXPECT_EQ(property_set("test.key", ""), 0);
}

}  // namespace
