#pragma once

#include <VXBuffer.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vexa_testing/Faults.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"

// BufferTest: fixture of tests that make buffers. Logs are captured; at the end of a test no
// descriptor, no mapping of buffer memory and no buffer of the codec library may be left.
class BufferTest : public ::testing::Test {
protected:
    // After the members of the derived fixture, pools among them, are gone.
    ~BufferTest() override {
        vexa_testing::clearFaults();
        EXPECT_EQ(openDescriptors(), mDescriptorsBefore);
        EXPECT_EQ(memories(), 0);
        EXPECT_EQ(mappings(), 0);
        EXPECT_EQ(vexa_testing::liveBlocks(), 0);
        EXPECT_EQ(vexa_testing::liveVendorBuffers(), 0);
    }

    // Descriptors of buffer memory that are open, so: buffers that are alive, back-end regardless.
    static int memories() {
        int count = 0;
        for (const std::string& target : descriptors()) count += isBufferMemory(target);
        return count;
    }

    // Mappings of buffer memory in this process.
    static int mappings() {
        int count = 0;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) count += isBufferMemory(line);
        return count;
    }

    LogCapture log;

private:
    static bool isBufferMemory(const std::string& text) {
        return text.find("/memfd:") != std::string::npos ||
               text.find("/dmabuf:") != std::string::npos;
    }

    // What the open descriptors refer to.
    static std::vector<std::string> descriptors() {
        std::vector<std::string> targets;
        DIR* directory = opendir("/proc/self/fd");
        while (const dirent* entry = readdir(directory)) {
            char target[256] = {};
            if (readlinkat(dirfd(directory), entry->d_name, target, sizeof(target) - 1) > 0) {
                targets.push_back(target);
            }
        }
        closedir(directory);
        return targets;
    }
    static size_t openDescriptors() { return descriptors().size(); }

    const size_t mDescriptorsBefore = openDescriptors();
};
