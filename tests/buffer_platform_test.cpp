// The host's buffer platform: the allocator, the layout of pictures, Codec 2.0 and the codec
// library.
#include <BufferAllocator/BufferAllocator.h>
#include <C2PlatformSupport.h>
#include <VideoBufferLayout.h>
#include <cutils/native_handle.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/dma-buf.h>
#include <malloc.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vexa_testing/Codec2.h>
#include <xc2/Platform.h>

#include <set>
#include <thread>

#include "support/BufferTest.h"

constexpr char kTag[] = "BufferAllocator";
constexpr char kSource[] = "VX_DMABUF_SOURCE";

// ---- Allocator --------------------------------------------------------------------------------

class AllocatorTest : public BufferTest {
protected:
    ~AllocatorTest() override { force(mForced.c_str()); }

    // Forces a source of memory; "" forces none.
    static void force(const char* source, const std::string& devices = "/dev") {
        *source != '\0' ? setenv(kSource, source, 1) : unsetenv(kSource);
        vexa_testing::forgetSources(devices);
    }

    // Allocates a byte: how the kernel names the kind of its memory; "" on failure.
    std::string kindOfAByte() {
        const int fd = allocator.Alloc("vndr,system", 1);
        const std::string target = fd >= 0 ? descriptors()[fd] : "";
        close(fd);
        return target.substr(0, target.find(':') + 1);
    }

    const std::string mForced = std::getenv(kSource) != nullptr ? std::getenv(kSource) : "";
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    BufferAllocator allocator;
};

// Catches: memory that is too short, not zero, inherited by other programs, of changing size, or
// that cannot be told from another one; an impossible size taken for a small one, an error for
// success.
TEST_F(AllocatorTest, MemoryIsWholePagesAndBehavesLikeADmaBuf) {
    std::set<ino_t> inodes;
    for (const auto& [asked, given] :
         {std::pair<size_t, size_t>{1, page}, {page, page}, {page + 1, 2 * page}}) {
        const int fd = allocator.Alloc("vndr,system", asked, 0);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(lseek(fd, 0, SEEK_END), static_cast<off_t>(given));
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_NE(ftruncate(fd, 0), 0);
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
    // An emulator that does not know these calls refuses them before it looks at the descriptor.
    if (ioctl(-1, DMA_BUF_IOCTL_SYNC, nullptr) != 0 && errno == EBADF) {
        EXPECT_EQ(allocator.CpuSyncStart(-1, kSyncRead), -EBADF);
        EXPECT_EQ(allocator.CpuSyncEnd(-1, kSyncRead), -EBADF);
        EXPECT_EQ(allocator.DmabufSetName(-1, "name"), -EBADF);
    }
    EXPECT_TRUE(log.messages().empty());
    EXPECT_LT(allocator.Alloc("system", 0, 0), 0);
    EXPECT_LOGGED(ERROR, "cannot allocate 0 bytes from heap system: Invalid argument");
    for (const size_t length : {size_t{UINT32_MAX}, SIZE_MAX}) {
        EXPECT_LT(allocator.AllocSystem(true, length), 0);
        EXPECT_EQ(log.count("cannot allocate " + std::to_string(length) + " bytes"), 1);
    }
}

// Catches: a run that uses another source than its environment names or, without a word there, than
// the first that this machine has; a source decided per allocation, or that falls back where one
// was forced; an error that does not name its source, and how to choose another.
TEST_F(AllocatorTest, TheSourceIsDecidedOnceAndCanBeForced) {
    const std::string heap = access("/dev/dma_heap/system", R_OK) == 0 ? "/dmabuf:" : "";
    const std::string udmabuf = access("/dev/udmabuf", R_OK) == 0 ? "/dmabuf:" : "";
    const bool memfd = mForced == "memfd" || (mForced.empty() && (heap + udmabuf).empty());
    EXPECT_EQ(kindOfAByte(), memfd ? "/memfd:" : "/dmabuf:");
    force("memfd");
    EXPECT_EQ(kindOfAByte(), "/memfd:");
    setenv(kSource, "nonsense", 1);  // too late to count
    EXPECT_EQ(kindOfAByte(), "/memfd:");
    const std::string choose = " (VX_DMABUF_SOURCE=heap, udmabuf or memfd chooses one)";
    force("nonsense");
    EXPECT_EQ(kindOfAByte(), "");
    EXPECT_LOGGED(ERROR,
                  "cannot allocate 1 bytes from heap vndr,system: Invalid argument; "
                  "source: nonsense" +
                      choose);
    force("heap");
    EXPECT_EQ(kindOfAByte(), heap);
    force("udmabuf");
    EXPECT_EQ(kindOfAByte(), udmabuf);
    log.clear();
    EXPECT_LT(allocator.Alloc("vndr,system", 65 << 20), 0);  // beyond the limit of udmabuf
    EXPECT_LOGS("; source: udmabuf" + choose);
}

// Catches: a device that cannot be opened and hides the next one, a heap whose source depends on
// which other one came first, a decision made for good while no descriptor was left, a device that
// other programs inherit, a list of heaps with anything else in it.
TEST_F(AllocatorTest, WhatCannotBeOpenedIsPassedOverForEachHeap) {
    char folder[] = "/tmp/devices.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string devices = folder;
    const std::string paths[] = {devices + "/dma_heap/vndr,system", devices + "/dma_heap/system",
                                 devices + "/udmabuf"};
    ASSERT_EQ(mkdir((devices + "/dma_heap").c_str(), 0700), 0);
    // The zero device can be opened, but has no memory.
    const std::string loop = "loop", opens = "/dev/zero", missing;  // a loop is there, but no more
    const auto sourceOf = [&](const char* heap) -> std::string {
        log.clear();
        BufferAllocator fresh;
        const int memory = fresh.Alloc(heap, 1);
        for (const auto& [fd, target] : descriptors()) {
            EXPECT_TRUE(target != opens || fcntl(fd, F_GETFD) == FD_CLOEXEC);
        }
        if (memory >= 0) return close(memory) == 0 ? "memfd" : "";
        for (const char* source : {"heap", "udmabuf"}) {
            if (log.count(std::string("; source: ") + source) == 1) return source;
        }
        return log.messages().front().text;
    };
    const struct {
        std::string targets[3];  // of the paths
        const char *vendor, *system;
    } rows[] = {
        {{opens, missing, missing}, "heap", "memfd"},   {{opens, loop, opens}, "heap", "udmabuf"},
        {{loop, opens, missing}, "heap", "heap"},       {{missing, opens, missing}, "heap", "heap"},
        {{loop, loop, opens}, "udmabuf", "udmabuf"},    {{loop, missing, loop}, "memfd", "memfd"},
        {{missing, missing, missing}, "memfd", "memfd"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        std::unordered_set<std::string> heaps;
        for (int i = 0; i < 3; ++i) {
            const std::string& target = row.targets[i] == loop ? paths[i] : row.targets[i];
            if (target == missing) continue;
            ASSERT_EQ(symlink(target.c_str(), paths[i].c_str()), 0);
            if (i < 2) heaps.insert(i == 0 ? "vndr,system" : "system");
        }
        force("", devices);
        EXPECT_EQ(allocator.GetDmabufHeapList(), heaps);
        {
            const NoDescriptors none;
            EXPECT_LT(BufferAllocator().Alloc("vndr,system", 1), 0);
        }
        EXPECT_EQ(sourceOf("vndr,system"), row.vendor);
        EXPECT_EQ(sourceOf("system"), row.system);
        EXPECT_EQ(sourceOf("vndr,system"), row.vendor);
        for (const auto& path : paths) unlink(path.c_str());
    }
    EXPECT_EQ(rmdir((devices + "/dma_heap").c_str()) + rmdir(folder), 0);
}

// ---- Layout of pictures -------------------------------------------------------------------------

// Catches: a changed rule, a vendor format without a layout or with that of another one. The sizes
// are worked out by hand from the table in the header, for 1920 x 1080.
TEST(VideoLayout, RulesPerNumberAndVendorFormat) {
    const struct {
        uint32_t number, stride, scanlines, size;
        std::vector<uint32_t> vendorFormats;
    } rows[] = {{0, 1920, 1088, 3133440, {0x7FA30C04, 0x23, 0x109, 0x7F000789, 0x32315659}},
                {1, 1920, 1088, 3145728, {0x7FA30C06}},
                {2, 2048, 1536, 4718592, {0x114}},
                {3, 1920, 1088, 6266880, {0x36}},
                {5, 1920, 1088, 4198400, {0x7FA30C09}},
                {6, 2048, 1536, 9437184, {0x3C}},
                {7, 1920, 1088, 6291456, {0x133}},
                {8, 1920, 1088, 8355840, {0x1}},
                {9, 1920, 1088, 8388608, {0xC2000000}},
                {11, 1920, 1088, 8388608, {0xC2000001}},
                {12, 1920, 1088, 8355840, {0x2B}},
                {13, 1920, 1088, 16711680, {0x16}},
                {4, 0, 0, 0, {}},
                {10, 0, 0, 0, {}},
                {14, 0, 0, 0, {}},
                {UINT32_MAX, 0, 0, 0, {0}}};
    using Vendors = xc2::Platform::LyraBufferLayout;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.number);
        const auto format = static_cast<VideoColorFormat>(row.number);
        EXPECT_EQ(VideoBufferLayout_GetStrideInPixels(format, 1920, 1), row.stride);
        EXPECT_EQ(VideoBufferLayout_GetScanlines(format, 1080, 1), row.scanlines);
        EXPECT_EQ(VideoBufferLayout_GetBufferSize(format, 1920, 1088) != 0, row.size != 0);
        EXPECT_EQ(VideoBufferLayout_GetBufferSize(format, row.stride, row.scanlines), row.size);
        for (const uint32_t vendors : row.vendorFormats) {
            EXPECT_EQ(Vendors::FormatMap(vendors), format);
            EXPECT_EQ(Vendors::Of(vendors, 1920, 1080).size, row.size);
        }
    }
}

// Catches: chroma of odd sizes rounded down, in either direction.
TEST(VideoLayout, ChromaOfOddSizesRoundsUp) {
    // One byte over a page: 3 x 819 and 410 rows of 2 pairs; 2731 x 2 and a row of 1366 pairs.
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_YUV420_8, 3, 819), 8192u);
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_YUV420_8, 2731, 2), 12288u);
    const uint32_t used = 128 * 32 + 128 * 16;
    EXPECT_EQ(VideoBufferLayout_GetBufferSizeUsed(VIDEO_COLOR_YUV420_8, 128, 31, false), used);
    EXPECT_EQ(VideoBufferLayout_GetBufferSizeUsed(VIDEO_COLOR_YUV420_8, 128, 29, true), used);
}

// Catches: bytes in use that lie beyond the picture's memory, a size that wraps and comes out
// small.
TEST(VideoLayout, SizesSaturateAndHoldWhatIsInUse) {
    for (const uint32_t number : {0, 1, 2, 3, 5, 6, 7, 8, 9, 11, 12, 13}) {
        const auto format = static_cast<VideoColorFormat>(number);
        const uint32_t stride = VideoBufferLayout_GetStrideInPixels(format, 100, 1);
        for (uint32_t height = 1; height < 70; ++height) {
            const uint32_t scanlines = VideoBufferLayout_GetScanlines(format, height, 1);
            const uint32_t used = VideoBufferLayout_GetBufferSizeUsed(format, 100, height, false);
            const uint32_t fields = VideoBufferLayout_GetBufferSizeUsed(format, 100, height, true);
            EXPECT_LE(used, fields) << number << ", " << height;
            EXPECT_LE(fields, VideoBufferLayout_GetBufferSize(format, stride, scanlines))
                << number << ", " << height;
        }
        for (const uint64_t edge : {65535u, 65536u, 1u << 20, 0x7FFFFFFFu, UINT32_MAX}) {
            // Every form has at least a byte per pixel.
            EXPECT_GE(VideoBufferLayout_GetBufferSize(format, edge, edge),
                      std::min<uint64_t>(edge * edge, UINT32_MAX))
                << number << ": " << edge;
        }
        EXPECT_EQ(VideoBufferLayout_GetStrideInPixels(format, UINT32_MAX, 1), UINT32_MAX);
        EXPECT_EQ(VideoBufferLayout_GetScanlines(format, UINT32_MAX, 1), UINT32_MAX);
        EXPECT_EQ(VideoBufferLayout_GetBufferSizeUsed(format, UINT32_MAX, UINT32_MAX, true),
                  UINT32_MAX);
    }
    // The largest size that still fits, and one step more.
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_RGBA8888, 1024, 1048575), 4294963200u);
    EXPECT_EQ(VideoBufferLayout_GetBufferSize(VIDEO_COLOR_RGBA8888, 1024, 1048576), UINT32_MAX);
}

// ---- Codec 2.0 ----------------------------------------------------------------------------------

class Codec2Test : public BufferTest {};

// Catches: ids that are mistaken, kinds of block that a pool does not make, outputs that keep what
// they held, handles of another layout than the device's, blocks that do not keep their memory.
TEST_F(Codec2Test, PoolsAreWhatTheirIdSaysAndBlocksOwnTheirMemory) {
    std::shared_ptr<C2BlockPool> linear, graphic;
    ASSERT_EQ(android::GetCodec2BlockPool(0, nullptr, &linear), C2_OK);
    ASSERT_EQ(android::GetCodec2BlockPool(1, nullptr, &graphic), C2_OK);
    EXPECT_EQ(linear->getLocalId(), 0u);
    EXPECT_EQ(graphic->getLocalId(), 1u);
    EXPECT_EQ(linear->getAllocatorId(), 16u);
    EXPECT_EQ(graphic->getAllocatorId(), 17u);
    auto none = linear;
    EXPECT_EQ(android::GetCodec2BlockPool(2, nullptr, &none), C2_NOT_FOUND);
    EXPECT_EQ(none, nullptr);

    const C2MemoryUsage usage(C2MemoryUsage::CPU_READ, C2MemoryUsage::CPU_WRITE);
    std::shared_ptr<C2LinearBlock> block;
    int i = 0;
    mallopt(M_PERTURB, 1);  // what is not written is not 0
    ASSERT_EQ(linear->fetchLinearBlock(5000, usage, &block), C2_OK);
    mallopt(M_PERTURB, 0);
    EXPECT_EQ(block->handle()->version, 12);
    EXPECT_EQ(block->handle()->numFds, 1);
    EXPECT_EQ(block->handle()->numInts, 3);
    for (const int number : {5000, 0, 0xc210000}) EXPECT_EQ(block->handle()->data[++i], number);
    EXPECT_EQ(memories(), 1);
    std::shared_ptr<C2CircularBlock> circle;
    EXPECT_EQ(linear->fetchCircularBlock(100, usage, &circle), C2_OMITTED);
    EXPECT_EQ(graphic->fetchLinearBlock(100, usage, &block), C2_OMITTED);
    EXPECT_EQ(block, nullptr);
    std::shared_ptr<C2GraphicBlock> picture;
    EXPECT_EQ(linear->fetchGraphicBlock(8, 8, 0x1, usage, &picture), C2_OMITTED);
    EXPECT_EQ(graphic->fetchGraphicBlock(64, 64, 0x1234, usage, &picture), C2_BAD_VALUE);
    ASSERT_EQ(graphic->fetchGraphicBlock(64, 64, 0x1, usage, &picture), C2_OK);
    EXPECT_EQ(picture->handle()->numInts, 0);
    EXPECT_EQ(lseek(picture->handle()->data[0], 0, SEEK_END), 64 * 64 * 4);
}

// Catches: a fence without an inside that blocks or counts as unfired, copies that do not share, a
// waiter that sleeps through the signal, a longest time-out that overflows and ends at once.
TEST_F(Codec2Test, ANullFenceHasFiredAndCopiesShare) {
    C2Fence none;
    EXPECT_TRUE(none.valid() && none.ready());
    EXPECT_EQ(none.wait(0), C2_OK);
    EXPECT_EQ(none.fd(), -1);
    EXPECT_FALSE(none.isHW());

    vexa_testing::FenceTrigger trigger;
    C2Fence copy = trigger.fence();
    EXPECT_EQ(copy.wait(1), C2_TIMED_OUT);
    std::thread firing([&] {
        for (int n = 0; n < 1000; ++n) sched_yield();  // usually the waiter sleeps by then
        trigger.fire();
    });
    EXPECT_EQ(copy.wait(INT64_MAX), C2_OK);
    firing.join();
    trigger.abandon();  // too late
    EXPECT_EQ(copy.wait(0), C2_OK);
}

// Catches: a handle whose descriptors or memory leak, or one of another version that is freed.
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
    const size_t mapped = mallinfo2().hblkhd;
    native_handle_delete(native_handle_create(0, 16 << 20));  // so large that it is mapped apart
    EXPECT_EQ(mallinfo2().hblkhd, mapped);
}
