#include <VXUtils.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "support/LogCapture.h"

using namespace vexa;

static constexpr char kLogTag[] = "Test";
static constexpr char kProperty[] = "vendor.vexa.log.msg";
static const uint32_t sMaskAtStart = gVXLogLevel;

// Catches: a library that logs before the application asks for it, a mask read in decimal, a wrong
// default, text that leaves the old mask in force.
TEST(Log, MaskComesFromThePropertyInHexadecimal) {
    EXPECT_EQ(sMaskAtStart, 0u);
    unsetenv("VENDOR_VEXA_LOG_MSG");  // which would stand in for the property
    const std::pair<const char*, uint32_t> rows[] = {{"", 0x3},  {"10", 0x10}, {"1f", 0x1f},
                                                     {"8", 0x8}, {"none", 0},  {"0", 0}};
    for (const auto& [text, mask] : rows) {
        // A device's property service may refuse.
        if (property_set(kProperty, text) != 0) GTEST_SKIP() << "the property cannot be set";
        EXPECT_EQ(vxUpdateLogLevel(), mask) << text;
        EXPECT_EQ(gVXLogLevel, mask) << text;
    }
    property_set(kProperty, "");
    gVXLogLevel = 0;
}

// Catches: bits that are not independent, and arguments that are built before the gate.
TEST(Log, EachBitGatesItsOwnMessages) {
    for (const uint32_t bit : {1u, 2u, 4u, 8u, 16u, 0u}) {
        LogCapture log(bit);
        int built = 0;
        const auto argument = [&built] { return ++built; };
        VX_LOGE("e %d", argument());
        VX_LOGW("w %d", argument());
        VX_LOGD("d %d", argument());
        VX_LOGT("t %d", argument());
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kLogTag, "e 1"), bit == 1);
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, kLogTag, "w 1"), bit == 2);
        EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kLogTag, "d 1"), bit == 8);
        EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kLogTag, "t 1"), bit == 16);
        EXPECT_EQ(built, bit == 0 || bit == 4 ? 0 : 1);
    }
}

static VXError guarded(const std::string& text, int* line) {
    *line = __LINE__ + 1;
    VX_FAIL_IF(text.find("a,b") != std::string::npos, VX_INCOMPATIBLE);
    return VX_OK;
}

// Catches: a guard that prints something else than its own condition and line, or that depends on
// the log mask for its return.
TEST(Log, GuardPrintsItsConditionAndReturns) {
    LogCapture log(VX_LOG_ERROR);
    int line = 0;
    EXPECT_EQ(guarded("a,b", &line), VX_INCOMPATIBLE);
    const std::string text = "text.find(\"a,b\") != std::string::npos : Line# ";
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kLogTag, text + std::to_string(line)), 1);
    EXPECT_EQ(guarded("ab", &line), VX_OK);
    [](int fd) {
#define NO_FD (-1)
        VX_FAIL_IF(fd == NO_FD, );
    }(-1);
    EXPECT_EQ(log.count("fd == NO_FD : Line# "), 1);  // as written, not as it expands
    gVXLogLevel = 0;
    EXPECT_EQ(guarded("a,b", &line), VX_INCOMPATIBLE);
    EXPECT_EQ(log.messages().size(), 2u);
}

class Files : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(mFolder.data()), nullptr); }
    void TearDown() override { (void)!std::system(("rm -rf " + mFolder).c_str()); }
    std::string path() const { return mFolder + "/file"; }

    std::string mFolder = testing::TempDir() + "vxutils.XXXXXX";
    std::string content = "old";
};

// Catches: a chunk lost, doubled or cut at zero bytes, at every border of the 1024-byte chunks; a
// file that grows meanwhile and is not read as a prefix of it.
TEST_F(Files, AreReadWhole) {
    for (const size_t size : {0, 1, 1023, 1024, 1025, 2048, 100000}) {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7);
        std::ofstream(path(), std::ios::binary) << bytes;
        EXPECT_TRUE(ReadFileToString(path(), &content));
        EXPECT_EQ(content, bytes) << size;
    }
    std::ofstream(path()) << std::string(5000, 'x') << std::flush;
    std::thread writer([this] {
        std::ofstream log(path(), std::ios::app);
        for (int i = 0; i < 1000; ++i) log << std::string(100, 'x') << std::flush;
    });
    EXPECT_TRUE(ReadFileToString(path(), &content));
    writer.join();
    EXPECT_GE(content.size(), 5000u);
    EXPECT_EQ(content.find_first_not_of('x'), std::string::npos);
}

// Catches: a failure that leaves old content, and a missing or wrong message; memory reserved for a
// size that a directory only claims, an endless wait or a crash on what is not a plain file.
TEST_F(Files, OddOnesDoNoHarm) {
    LogCapture log(VX_LOG_ERROR);
    EXPECT_FALSE(ReadFileToString(path(), nullptr));
    EXPECT_EQ(log.count("!content : Line# "), 1);
    const auto expectRefused = [&] {
        log.clear();
        content = "old";
        EXPECT_FALSE(ReadFileToString(path(), &content));
        EXPECT_EQ(content, "");
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Vexa::Utils",
                            "Failed to open file (" + path() + ") for reading"),
                  1);
    };
    expectRefused();  // it is missing
    // A pipe has no end to be positioned at, so it counts as not opened. The descriptor held here
    // keeps its opening from blocking.
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    const int held = open(path().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(write(held, "bytes", 5), 5);
    expectRefused();
    close(held);

    content = "old";
    ReadFileToString(mFolder, &content);
    EXPECT_EQ(content, "");
    EXPECT_LT(content.capacity(), size_t{65} << 20);
}
