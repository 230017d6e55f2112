#include <VXBuffer_dmabuf.h>
#include <VideoBufferLayout.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <typeinfo>

#include "support/BufferTest.h"

using namespace vexa;

constexpr char kTag[] = "Vexa::VXBuffer_DMABUF";

class DmabufTest : public BufferTest {
protected:
    std::shared_ptr<VXBuffer> fetchLinear() {
        std::shared_ptr<VXBuffer> buffer;
        EXPECT_EQ(linear->fetch(&buffer), VX_OK);
        return buffer;
    }
    std::shared_ptr<VXGraphicBuffer> fetchGraphic() {
        std::shared_ptr<VXGraphicBuffer> buffer;
        EXPECT_EQ(graphic->fetch(&buffer), VX_OK);
        return buffer;
    }

    const std::shared_ptr<VXLinearBufferPool> linear = VXLinearBufferPoolCreate_dmabuf(DEFAULT);
    const std::shared_ptr<VXGraphicBufferPool> graphic = VXGraphicBufferPoolCreate_dmabuf(DEFAULT);
};

// ---- Buffers ----------------------------------------------------------------------------------

// Catches: ids that are not the descriptor, identities that are not the memory's, a native value that
// is empty or typed.
TEST_F(DmabufTest, BuffersAreTheirDescriptor) {
    linear->setSize(100);
    graphic->setPixelFormat(0x36);
    graphic->setResolution(64, 64);
    for (const std::shared_ptr<VXBuffer>& buffer :
         {fetchLinear(), std::shared_ptr<VXBuffer>(fetchGraphic())}) {
        EXPECT_EQ(buffer->id(), buffer->fd());
        struct stat status = {};
        ASSERT_EQ(fstat(buffer->fd(), &status), 0);
        EXPECT_EQ(buffer->uid(), status.st_ino);
        const std::any native = buffer->nativeBuffer();
        EXPECT_EQ(native.type(), typeid(std::nullptr_t));
        EXPECT_EQ(linear->createFromNative(native), nullptr);
        EXPECT_EQ(graphic->createFromNative(native), nullptr);
    }
}

// Catches: an offset that is reported although it is meant to stay 0.
TEST_F(DmabufTest, TheOffsetStaysZero) {
    linear->setSize(100);
    graphic->setPixelFormat(0x1);
    graphic->setResolution(64, 64);
    for (const std::shared_ptr<VXBuffer>& buffer :
         {fetchLinear(), std::shared_ptr<VXBuffer>(fetchGraphic())}) {
        EXPECT_EQ(buffer->size(), 0u);
        EXPECT_EQ(buffer->setFilledRange(16, 100), VX_OK);
        EXPECT_EQ(buffer->size(), 100u);
        EXPECT_EQ(buffer->offset(), 0u);
    }
}

// Catches: a descriptor that is closed silently, twice or not at all, and the wrong texts about it.
TEST_F(DmabufTest, LifeOfADescriptorIsLogged) {
    linear->setSize(100);
    auto buffer = fetchLinear();
    const std::string fd = std::to_string(buffer->fd());
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag,
                        "Allocated DMA Linear buffer fd " + fd + " mBufferSize 100"),
              1);
    buffer.reset();
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, "Close Fd " + fd), 1);
    EXPECT_EQ(memories(), 0);
}

// Catches: descriptors of one memory that look like two, an error that looks like an identity.
TEST_F(DmabufTest, DuplicatesShareTheirUniqueId) {
    const int one = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int same = dup(one);
    const int other = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(getUniqueIdForFileDescriptor(one), getUniqueIdForFileDescriptor(same));
    EXPECT_NE(getUniqueIdForFileDescriptor(one), getUniqueIdForFileDescriptor(other));
    for (const int fd : {one, same, other}) close(fd);
    EXPECT_EQ(getUniqueIdForFileDescriptor(-1), 0u);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Failed to fstat(-1)"), 1);
}

// Catches: the frame size taken for the allocated size for ever, or checked against it; a crop that is
// changed on its way.
TEST_F(DmabufTest, FrameSizeAndCropAreTheHolders) {
    graphic->setPixelFormat(0x36);
    graphic->setResolution(100, 50);
    const auto picture = fetchGraphic();
    EXPECT_EQ(picture->frameWidth(), 100u);
    EXPECT_EQ(picture->frameHeight(), 50u);
    EXPECT_EQ(picture->setFrameWidth(5000), VX_OK);
    EXPECT_EQ(picture->frameWidth(), 5000u);
    EXPECT_EQ(picture->frameHeight(), 50u);
    EXPECT_EQ(picture->setFrameHeight(0), VX_OK);
    EXPECT_EQ(picture->frameHeight(), 0u);
    EXPECT_EQ(picture->width(), 100u);
    EXPECT_EQ(picture->height(), 50u);

    EXPECT_EQ(picture->crop().width, 0u);
    EXPECT_EQ(picture->setCrop({1, 2, 3000, 4}), VX_OK);
    const VXGraphicBuffer::Rect crop = picture->crop();
    EXPECT_EQ(crop.left, 1u);
    EXPECT_EQ(crop.top, 2u);
    EXPECT_EQ(crop.width, 3000u);
    EXPECT_EQ(crop.height, 4u);
}

// ---- Settings ---------------------------------------------------------------------------------

// Catches: a usage that resets the graphic pool, or that does not reset the linear one.
TEST_F(DmabufTest, AUsageResetsTheLinearPoolOnly) {
    linear->setMaxSlots(1);
    linear->setSize(100);
    graphic->setMaxSlots(1);
    graphic->setPixelFormat(0x36);
    graphic->setResolution(64, 64);
    for (const VXBufferUsage usage : {DEFAULT, CACHED, SECURE, MULTIVIEW}) {
        EXPECT_FALSE(fetchLinear()->isSecure());
        EXPECT_FALSE(fetchGraphic()->isSecure());
        EXPECT_EQ(memories(), 2);
        EXPECT_EQ(graphic->setUsage(usage), VX_OK);
        EXPECT_EQ(memories(), 2);
        EXPECT_EQ(linear->setUsage(usage), VX_OK);
        EXPECT_EQ(memories(), 1);
    }
}

// Catches: an alignment that shapes the buffer, sizes that are not cut to 32 bits.
TEST_F(DmabufTest, LinearSizesAreCutTo32Bits) {
    linear->setMaxSlots(1);
    EXPECT_EQ(linear->setSize((size_t{1} << 32) + 100), VX_OK);
    EXPECT_EQ(fetchLinear()->capacity(), 100u);
    EXPECT_EQ(linear->setAlignment(4096), VX_OK);
    EXPECT_EQ(memories(), 0);
    EXPECT_EQ(fetchLinear()->capacity(), 100u);
}

// Catches: a short or empty buffer where a size is missing or does not fit 32 bits.
TEST_F(DmabufTest, ImpossibleSizesAreNoMemory) {
    std::shared_ptr<VXBuffer> buffer;
    EXPECT_EQ(linear->fetch(&buffer), VX_NO_MEMORY);  // no size yet: 0
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Failed to Allocate DMA Buffer"), 1);
    std::shared_ptr<VXGraphicBuffer> picture;
    EXPECT_EQ(graphic->fetch(&picture), VX_NO_MEMORY);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Failed to Allocate DMA Buffer"), 2);

    graphic->setPixelFormat(0x16);  // 8 bytes a pixel
    for (const auto& [width, height] : {std::pair<uint32_t, uint32_t>{65535, 65535},
                                        {1u << 16, 1u << 13},
                                        {UINT32_MAX, 1},
                                        {1, UINT32_MAX},
                                        {UINT32_MAX, UINT32_MAX}}) {
        log.clear();
        EXPECT_EQ(graphic->setResolution(width, height), VX_OK);
        EXPECT_EQ(graphic->fetch(&picture), VX_NO_MEMORY) << width << "x" << height;
        EXPECT_EQ(log.count("cannot allocate 4294967295 bytes from heap vndr,system"), 1);
    }
}

// ---- Geometry ---------------------------------------------------------------------------------

// Catches: a wrong row in the format table, sizes that are not the layout library's, and padding or its
// absence on the wrong side of the HEIC flag.
TEST_F(DmabufTest, GeometryComesFromTheLayoutLibrary) {
    const struct {
        uint32_t pixelFormat;
        uint32_t colorFormat;
        bool rgba;
    } rows[] = {{0x7FA30C04, 0, false}, {0x7FA30C06, 1, false}, {0x114, 2, false},
                {0x36, 3, false},       {0x7FA30C09, 5, false}, {0x55, 6, false},
                {0x7FA30C10, 7, false}, {0x1, 8, true},         {0xC2000000, 9, true},
                {0xC2000002, 11, true}, {0xC2000001, 12, true}, {0x16, 13, true}};
    for (const bool heic : {false, true}) {
        EXPECT_EQ(graphic->setHEICFlag(heic), VX_OK);
        for (const auto& row : rows) {
            const auto color = static_cast<VideoColorFormat>(row.colorFormat);
            const bool padded = !heic || row.rgba;
            ASSERT_EQ(graphic->setPixelFormat(row.pixelFormat), VX_OK);
            ASSERT_EQ(graphic->setResolution(101, 51), VX_OK);
            const auto picture = fetchGraphic();
            const uint32_t stride =
                padded ? VideoBufferLayout_GetStrideInPixels(color, 101, 1) : 101;
            const uint32_t scanlines = padded ? VideoBufferLayout_GetScanlines(color, 51, 1) : 51;
            EXPECT_EQ(picture->stride(), stride) << row.colorFormat;
            EXPECT_EQ(picture->sliceHeight(), scanlines) << row.colorFormat;
            EXPECT_EQ(picture->capacity(),
                      VideoBufferLayout_GetBufferSize(color, stride, scanlines))
                << row.colorFormat;
            EXPECT_EQ(picture->pixelFormat(), row.pixelFormat);
            EXPECT_EQ(picture->width(), 101u);
            EXPECT_EQ(picture->height(), 51u);
        }
    }
}

// Catches: an unknown format that is let through, or that leaves half a geometry: width and height are
// stored, the rest stays, the pool is not reset.
TEST_F(DmabufTest, AnUnknownFormatKeepsTheOldGeometry) {
    EXPECT_EQ(graphic->setResolution(64, 64), VX_ERROR);  // no format yet: 0
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Error. Pixelformat not found"), 1);
    graphic->setMaxSlots(1);
    graphic->setPixelFormat(0x36);
    ASSERT_EQ(graphic->setResolution(200, 100), VX_OK);
    const auto known = fetchGraphic();
    const size_t capacity = known->capacity();
    const uint32_t stride = known->stride();
    ASSERT_EQ(graphic->setPixelFormat(0x1234), VX_OK);
    EXPECT_EQ(graphic->setResolution(10, 20), VX_ERROR);
    const auto picture = fetchGraphic();
    EXPECT_EQ(picture->width(), 10u);
    EXPECT_EQ(picture->height(), 20u);
    EXPECT_EQ(picture->stride(), stride);
    EXPECT_EQ(picture->capacity(), capacity);
    EXPECT_EQ(picture->pixelFormat(), 0x1234u);
}

// Catches: a format set after the resolution that recomputes the geometry, or that keeps old buffers.
TEST_F(DmabufTest, AFormatAloneResetsButComputesNothing) {
    graphic->setMaxSlots(1);
    graphic->setPixelFormat(0x36);
    ASSERT_EQ(graphic->setResolution(64, 64), VX_OK);
    const size_t capacity = fetchGraphic()->capacity();
    EXPECT_EQ(memories(), 1);
    EXPECT_EQ(graphic->setPixelFormat(0x16), VX_OK);
    EXPECT_EQ(memories(), 0);
    EXPECT_EQ(fetchGraphic()->capacity(), capacity);
    EXPECT_EQ(graphic->reserved(), VX_OK);
}
