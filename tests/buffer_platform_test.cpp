// The host's buffer platform: the allocator, the layout of pictures, Codec 2.0 and the codec library.
#include <BufferAllocator/BufferAllocator.h>
#include <C2PlatformSupport.h>
#include <VideoBufferLayout.h>
#include <cutils/native_handle.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vexa_testing/Codec2.h>
#include <xc2/Platform.h>

#include <cerrno>
#include <cstdlib>
#include <set>

#include "support/BufferTest.h"

constexpr char kSource[] = "VX_DMABUF_SOURCE";

// ---- Allocator --------------------------------------------------------------------------------

class AllocatorTest : public BufferTest {
protected:
    AllocatorTest() {
        const char* forced = std::getenv(kSource);
        mForced = forced != nullptr ? forced : "";
    }
    ~AllocatorTest() override { force(mForced.c_str()); }

    // Forces a source of memory; "" forces none.
    static void force(const char* source) {
        if (*source != '\0') {
            setenv(kSource, source, 1);
        } else {
            unsetenv(kSource);
        }
        vexa_testing::forgetHeapSource();
    }

    // What the descriptor refers to, as the kernel names it.
    static std::string kindOf(int fd) {
        char target[256] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        return readlink(link.c_str(), target, sizeof(target) - 1) > 0 ? target : "";
    }

    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    BufferAllocator allocator;
    std::string mForced;
};

// Catches: memory that is too short, not zero, inherited by other programs, of changing size, or that
// cannot be told from another one.
TEST_F(AllocatorTest, MemoryIsWholePagesAndBehavesLikeADmaBuf) {
    std::set<ino_t> inodes;
    for (const auto& [asked, given] : {std::pair<size_t, size_t>{1, page},
                                       {page, page},
                                       {page + 1, 2 * page},
                                       {size_t{1} << 20, size_t{1} << 20}}) {
        const int fd = allocator.Alloc("vndr,system", asked, 0);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(lseek(fd, 0, SEEK_END), static_cast<off_t>(given));
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_NE(ftruncate(fd, static_cast<off_t>(given / 2)), 0);
        EXPECT_NE(ftruncate(fd, static_cast<off_t>(given * 2)), 0);
        struct stat status = {};
        ASSERT_EQ(fstat(fd, &status), 0);
        EXPECT_TRUE(inodes.insert(status.st_ino).second);
        auto* memory =
            static_cast<uint8_t*>(mmap(nullptr, given, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        ASSERT_NE(memory, MAP_FAILED);
        EXPECT_EQ(allocator.CpuSyncStart(fd, kSyncReadWrite), 0);
        EXPECT_EQ(memory[0] + memory[given - 1], 0);
        memory[given - 1] = 1;
        EXPECT_EQ(allocator.CpuSyncEnd(fd, kSyncReadWrite), 0);
        munmap(memory, given);
        close(fd);
    }
    EXPECT_TRUE(log.messages().empty());
}

// Catches: a size that the kernel would refuse or that did not fit on its way, taken for a small one.
TEST_F(AllocatorTest, ImpossibleLengthsAreRefusedByName) {
    EXPECT_LT(allocator.Alloc("system", 0, 0), 0);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "BufferAllocator",
                        "cannot allocate 0 bytes from heap system: Invalid argument"),
              1);
    for (const size_t length : {size_t{UINT32_MAX}, SIZE_MAX}) {
        EXPECT_LT(allocator.AllocSystem(true, length), 0);
        EXPECT_EQ(log.count("cannot allocate " + std::to_string(length) + " bytes"), 1);
    }
}

// Catches: a source that is decided per allocation, or that falls back where one was forced.
TEST_F(AllocatorTest, TheSourceIsDecidedOnceAndCanBeForced) {
    force("memfd");
    int fd = allocator.Alloc("vndr,system", 1);
    EXPECT_EQ(kindOf(fd).rfind("/memfd:vndr,system", 0), 0u);
    close(fd);
    setenv(kSource, "nonsense", 1);  // too late to count
    fd = allocator.Alloc("vndr,system", 1);
    EXPECT_GE(fd, 0);
    close(fd);

    force("nonsense");
    EXPECT_LT(allocator.Alloc("vndr,system", 1), 0);
    EXPECT_EQ(log.count("VX_DMABUF_SOURCE=nonsense: expected heap, udmabuf or memfd"), 1);

    const std::pair<const char*, const char*> devices[] = {{"heap", "/dev/dma_heap/system"},
                                                           {"udmabuf", "/dev/udmabuf"}};
    for (const auto& [source, device] : devices) {
        force(source);
        fd = allocator.Alloc("vndr,system", 1);
        const bool there = access(device, R_OK) == 0;
        EXPECT_EQ(fd >= 0, there) << device;
        if (there) {
            EXPECT_EQ(kindOf(fd).rfind("/dmabuf:", 0), 0u) << kindOf(fd);
            EXPECT_EQ(BufferAllocator::DmabufSetName(fd, std::string(100, 'n')), 0);
            close(fd);
        }
    }
}

// Catches: a run that uses another source than its environment says or, without a word there, than the
// first that this machine has.
TEST_F(AllocatorTest, ThisRunUsesTheSourceThatItShould) {
    const bool none =
        access("/dev/dma_heap/system", R_OK) != 0 && access("/dev/udmabuf", R_OK) != 0;
    const bool memfd = mForced == "memfd" || (mForced.empty() && none);
    const int fd = allocator.Alloc("vndr,system", 1);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kindOf(fd).rfind(memfd ? "/memfd:" : "/dmabuf:", 0), 0u) << kindOf(fd);
    close(fd);
}

// ---- Layout of pictures -------------------------------------------------------------------------

VideoColorFormat colorFormat(uint32_t number) {
    return static_cast<VideoColorFormat>(number);
}

// Catches: a changed rule. Sizes are added up by hand from the table in the header, for 1920 x 1080.
TEST(VideoLayout, RulesPerNumber) {
    const struct {
        uint32_t number, stride, scanlines, size;
    } rows[] = {
        {0, 1920, 1088, 2088960 + 1044480},
        {1, 1920, 1088, (2088960 + 8192) + (1044480 + 4096)},
        {2, 2048, 1536, 3145728 + 1572864},
        {3, 1920, 1088, 4177920 + 2088960},
        {5, 1920, 1088, (2785280 + 12288) + (1392640 + 8192)},
        {6, 2048, 1536, 6291456 + 3145728},
        {7, 1920, 1088, (4177920 + 16384) + (2088960 + 8192)},
        {8, 1920, 1088, 8355840},
        {9, 1920, 1088, 8355840 + 32768},
        {11, 1920, 1088, 8355840 + 32768},
        {12, 1920, 1088, 8355840},
        {13, 1920, 1088, 16711680},
    };
    for (const auto& row : rows) {
        const VideoColorFormat format = colorFormat(row.number);
        EXPECT_EQ(VideoBufferLayout_GetStrideInPixels(format, 1920, 1), row.stride) << row.number;
        EXPECT_EQ(VideoBufferLayout_GetScanlines(format, 1080, 1), row.scanlines) << row.number;
        EXPECT_EQ(VideoBufferLayout_GetBufferSize(format, row.stride, row.scanlines), row.size)
            << row.number;
    }
    for (const uint32_t number : {4u, 10u, 14u, 1000u, UINT32_MAX}) {
        EXPECT_EQ(VideoBufferLayout_GetStrideInPixels(colorFormat(number), 64, 1), 0u) << number;
        EXPECT_EQ(VideoBufferLayout_GetScanlines(colorFormat(number), 64, 1), 0u) << number;
        EXPECT_EQ(VideoBufferLayout_GetBufferSize(colorFormat(number), 64, 64), 0u) << number;
        EXPECT_EQ(VideoBufferLayout_GetBufferSizeUsed(colorFormat(number), 64, 64, false), 0u);
    }
}

// Catches: chroma of odd sizes rounded down, in either direction.
TEST(VideoLayout, ChromaOfOddSizesRoundsUp) {
    // One byte over a page: 3 x 819 and 410 rows of 2 pairs; 2731 x 2 and a row of 1366 pairs.
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_YUV420_8, 3, 819), 8192u);
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_YUV420_8, 2731, 2), 12288u);
    EXPECT_EQ(VideoBufferLayout_GetBufferSizeUsed(VIDEO_COLOR_YUV420_8, 128, 31, false),
              128u * 32 + 128 * 16);
    EXPECT_EQ(VideoBufferLayout_GetBufferSizeUsed(VIDEO_COLOR_YUV420_8, 128, 29, true),
              128u * 32 + 128 * 16);
}

// Catches: bytes in use that lie beyond the picture's memory, for any form and small size.
TEST(VideoLayout, NeverMoreInUseThanThereIs) {
    for (uint32_t number = 0; number < 14; ++number) {
        for (uint32_t height = 1; height < 70; ++height) {
            const VideoColorFormat format = colorFormat(number);
            const uint32_t size = VideoBufferLayout_GetBufferSize(
                format, VideoBufferLayout_GetStrideInPixels(format, 100, 1),
                VideoBufferLayout_GetScanlines(format, height, 1));
            const uint32_t used = VideoBufferLayout_GetBufferSizeUsed(format, 100, height, false);
            const uint32_t fields = VideoBufferLayout_GetBufferSizeUsed(format, 100, height, true);
            EXPECT_LE(used, fields) << number << ", " << height;
            EXPECT_LE(fields, size) << number << ", " << height;
        }
    }
}

// Catches: a size that wraps and comes out small.
TEST(VideoLayout, SizesSaturate) {
    const uint32_t edges[] = {65535, 65536, 1u << 20, 0x7FFFFFFF, 0xFFFFFFFE, UINT32_MAX};
    for (uint32_t number = 0; number < 14; ++number) {
        const VideoColorFormat format = colorFormat(number);
        if (VideoBufferLayout_GetStrideInPixels(format, 1, 1) == 0) continue;
        for (const uint32_t stride : edges) {
            for (const uint32_t scanlines : edges) {
                const uint32_t size = VideoBufferLayout_GetBufferSize(format, stride, scanlines);
                // Every form has at least a byte per pixel.
                const uint64_t least = uint64_t{stride} * scanlines;
                EXPECT_GE(size, std::min<uint64_t>(least, UINT32_MAX))
                    << number << ": " << stride << " x " << scanlines;
            }
        }
        EXPECT_EQ(VideoBufferLayout_GetStrideInPixels(format, UINT32_MAX, 1), UINT32_MAX);
        EXPECT_EQ(VideoBufferLayout_GetScanlines(format, UINT32_MAX, 1), UINT32_MAX);
        EXPECT_EQ(VideoBufferLayout_GetBufferSizeUsed(format, UINT32_MAX, UINT32_MAX, true),
                  UINT32_MAX);
    }
    // The largest sizes that still fit, and one step more.
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_RGBA8888, 1024, 1048575), 4294963200u);
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_RGBA8888, 1024, 1048576), UINT32_MAX);
}

// ---- Codec 2.0 ----------------------------------------------------------------------------------

class Codec2Test : public BufferTest {
protected:
    static std::shared_ptr<C2BlockPool> poolOf(C2BlockPool::local_id_t id) {
        std::shared_ptr<C2BlockPool> pool;
        EXPECT_EQ(android::GetCodec2BlockPool(id, nullptr, &pool), C2_OK);
        return pool;
    }
};

// Catches: pools that are shared between calls, ids that are mistaken, kinds of block that a pool does
// not make, outputs that keep what they held.
TEST_F(Codec2Test, PoolsAreWhatTheirIdSays) {
    const auto linear = poolOf(C2BlockPool::BASIC_LINEAR);
    const auto graphic = poolOf(C2BlockPool::BASIC_GRAPHIC);
    EXPECT_NE(linear, poolOf(C2BlockPool::BASIC_LINEAR));
    EXPECT_EQ(linear->getLocalId(), 0u);
    EXPECT_EQ(linear->getAllocatorId(), 16u);
    EXPECT_EQ(graphic->getLocalId(), 1u);
    EXPECT_EQ(graphic->getAllocatorId(), 17u);
    auto none = linear;
    EXPECT_EQ(android::GetCodec2BlockPool(2, nullptr, &none), C2_NOT_FOUND);
    EXPECT_EQ(none, nullptr);

    const C2MemoryUsage usage(C2MemoryUsage::CPU_READ, C2MemoryUsage::CPU_WRITE);
    std::shared_ptr<C2LinearBlock> block;
    ASSERT_EQ(linear->fetchLinearBlock(100, usage, &block), C2_OK);
    EXPECT_EQ(graphic->fetchLinearBlock(100, usage, &block), C2_OMITTED);
    EXPECT_EQ(block, nullptr);
    std::shared_ptr<C2GraphicBlock> picture;
    EXPECT_EQ(linear->fetchGraphicBlock(8, 8, 0x1, usage, &picture), C2_OMITTED);
    std::shared_ptr<C2CircularBlock> circular;
    EXPECT_EQ(linear->fetchCircularBlock(100, usage, &circular), C2_OMITTED);
}

// Catches: handles of another layout than the device's, blocks that do not keep their memory.
TEST_F(Codec2Test, BlocksOwnTheirMemory) {
    std::shared_ptr<C2LinearBlock> block;
    ASSERT_EQ(poolOf(0)->fetchLinearBlock(5000, C2MemoryUsage(0), &block), C2_OK);
    EXPECT_EQ(block->handle()->version, 12);
    EXPECT_EQ(block->handle()->numFds, 1);
    EXPECT_EQ(block->handle()->numInts, 3);
    EXPECT_EQ(block->handle()->data[1], 5000);
    EXPECT_EQ(block->capacity(), 5000u);
    EXPECT_EQ(memories(), 1);

    std::shared_ptr<C2GraphicBlock> picture;
    const auto graphic = poolOf(1);
    EXPECT_EQ(graphic->fetchGraphicBlock(64, 64, 0x1234, C2MemoryUsage(0), &picture), C2_BAD_VALUE);
    ASSERT_EQ(graphic->fetchGraphicBlock(64, 64, 0x1, C2MemoryUsage(0), &picture), C2_OK);
    EXPECT_EQ(picture->width(), 64u);
    EXPECT_EQ(picture->crop().height, 64u);
    EXPECT_EQ(lseek(picture->handle()->data[0], 0, SEEK_END), 64 * 64 * 4);
    EXPECT_EQ(memories(), 2);
}

// Catches: a fence without an inside that blocks or counts as unfired, copies that do not share.
TEST_F(Codec2Test, ANullFenceHasFiredAndCopiesShare) {
    C2Fence none;
    EXPECT_TRUE(none.valid());
    EXPECT_TRUE(none.ready());
    EXPECT_EQ(none.wait(0), C2_OK);
    EXPECT_EQ(none.fd(), -1);
    EXPECT_FALSE(none.isHW());

    vexa_testing::FenceTrigger trigger;
    C2Fence copy = trigger.fence();
    EXPECT_EQ(copy.wait(1), C2_TIMED_OUT);
    trigger.fire();
    EXPECT_TRUE(copy.ready());
    trigger.abandon();  // too late
    EXPECT_EQ(copy.wait(0), C2_OK);
}

// Catches: a handle whose descriptors leak, or that is freed for a stranger.
TEST_F(Codec2Test, NativeHandlesCloseWhatTheyHold) {
    EXPECT_EQ(native_handle_create(-1, 0), nullptr);
    native_handle_t* handle = native_handle_create(1, 2);
    ASSERT_NE(handle, nullptr);
    handle->data[0] = memfd_create("handle", MFD_CLOEXEC);
    handle->version = 0;
    EXPECT_EQ(native_handle_close(handle), -EINVAL);
    EXPECT_EQ(native_handle_delete(handle), -EINVAL);
    handle->version = sizeof(native_handle_t);
    EXPECT_EQ(native_handle_close(handle), 0);
    EXPECT_EQ(memories(), 0);
    EXPECT_EQ(native_handle_delete(handle), 0);
}

// Catches: a vendor format without a layout, or with that of another one.
TEST(VendorPlatform, EveryFormatHasItsLayout) {
    const std::pair<uint32_t, uint32_t> rows[] = {
        {0x7FA30C04, 0}, {0x23, 0},        {0x109, 0}, {0x7F000789, 0},
        {0x32315659, 0}, {0x7FA30C06, 1},  {0x114, 2}, {0x36, 3},
        {0x7FA30C09, 5}, {0x3C, 6},        {0x133, 7}, {0x1, 8},
        {0xC2000000, 9}, {0xC2000001, 11}, {0x2B, 12}, {0x16, 13}};
    for (const auto& [format, number] : rows) {
        EXPECT_EQ(xc2::Platform::LyraBufferLayout::FormatMap(format), number);
    }
    EXPECT_EQ(xc2::Platform::LyraBufferLayout::FormatMap(0), VIDEO_COLOR_NONE);
    EXPECT_EQ(xc2::Platform::LyraBufferLayout::Of(0, 64, 64).size, 0u);
}
