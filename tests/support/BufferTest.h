#pragma once

#include <VXBuffer.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vexa_testing/Faults.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"

// BufferTest: fixture of tests that make buffers. Logs are captured; at the end of a test no
// descriptor, no mapping of buffer memory and no buffer of the codec library may be left.
class BufferTest : public ::testing::Test {
protected:
    // After the members of the derived fixture, pools among them, are gone.
    ~BufferTest() override {
        vexa_testing::clearFaults();
        EXPECT_EQ(descriptors(), mDescriptorsBefore);
        EXPECT_EQ(memories(), 0);
        EXPECT_EQ(mappings(), 0);
        EXPECT_EQ(vexa_testing::liveBlocks(), 0);
        EXPECT_EQ(vexa_testing::liveVendorBuffers(), 0);
    }

    // Descriptors of buffer memory that are open, so: buffers that are alive, back-end regardless.
    static int memories() {
        int count = 0;
        for (const auto& descriptor : descriptors()) count += isBufferMemory(descriptor.second);
        return count;
    }

    // Mappings of buffer memory in this process.
    static int mappings() {
        int count = 0;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) count += isBufferMemory(line);
        return count;
    }

    // What the open descriptors refer to.
    static std::map<int, std::string> descriptors() {
        std::map<int, std::string> targets;
        DIR* directory = opendir("/proc/self/fd");
        while (const dirent* entry = readdir(directory)) {
            char target[256] = {};
            if (readlinkat(dirfd(directory), entry->d_name, target, sizeof(target) - 1) > 0) {
                targets[atoi(entry->d_name)] = target;
            }
        }
        closedir(directory);
        return targets;
    }

    LogCapture log;

private:
    static bool isBufferMemory(const std::string& text) {
        return text.find("/memfd:") != std::string::npos ||
               text.find("/dmabuf:") != std::string::npos;
    }

    const std::map<int, std::string> mDescriptorsBefore = descriptors();
};

// NoDescriptors: while it lives, this process gets no further descriptor.
class NoDescriptors {
public:
    NoDescriptors() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &mBefore), 0);
        const int next = dup(STDERR_FILENO);
        close(next);
        const rlimit full = {static_cast<rlim_t>(next), mBefore.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &full), 0);
    }
    ~NoDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &mBefore), 0); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit mBefore = {};
};

// PoolTest: the same with a linear pool of 100 bytes and a graphic pool of 100 x 50 pixels of 10
// bits.
class PoolTest : public BufferTest {
protected:
    using Values = std::vector<size_t>;

    PoolTest(std::shared_ptr<vexa::VXLinearBufferPool> linearPool,
             std::shared_ptr<vexa::VXGraphicBufferPool> graphicPool)
        : linear(std::move(linearPool)), graphic(std::move(graphicPool)) {
        EXPECT_EQ(linear->setSize(100), vexa::VX_OK);
        EXPECT_EQ(graphic->setPixelFormat(0x36), vexa::VX_OK);
        EXPECT_EQ(graphic->setResolution(100, 50), vexa::VX_OK);
    }

    static std::shared_ptr<vexa::VXBuffer> fetch(vexa::VXLinearBufferPool& pool) {
        std::shared_ptr<vexa::VXBuffer> buffer;
        EXPECT_EQ(pool.fetch(&buffer), vexa::VX_OK);
        return buffer;
    }
    static std::shared_ptr<vexa::VXGraphicBuffer> fetch(vexa::VXGraphicBufferPool& pool) {
        std::shared_ptr<vexa::VXGraphicBuffer> buffer;
        EXPECT_EQ(pool.fetch(&buffer), vexa::VX_OK);
        return buffer;
    }
    std::vector<std::shared_ptr<vexa::VXBuffer>> fetchBoth() {
        return {fetch(*linear), fetch(*graphic)};
    }

    // Numbers of a picture or a rectangle, to be compared in one go.
    static Values geometryOf(const vexa::VXGraphicBuffer& p) {
        return {p.width(),       p.height(),     p.stride(),
                p.sliceHeight(), p.frameWidth(), p.frameHeight()};
    }
    template <class Rectangle>
    static Values sidesOf(const Rectangle& r) {
        return {r.left, r.top, r.width, r.height};
    }

    const std::shared_ptr<vexa::VXLinearBufferPool> linear;
    const std::shared_ptr<vexa::VXGraphicBufferPool> graphic;
};
