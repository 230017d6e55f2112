#include <VXBuffer_dmabuf.h>
#include <VideoBufferLayout.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <typeinfo>

#include "support/BufferTest.h"

using namespace vexa;

constexpr char kTag[] = "Vexa::VXBuffer_DMABUF";

class DmabufTest : public PoolTest {
protected:
    DmabufTest()
        : PoolTest(VXLinearBufferPoolCreate_dmabuf(DEFAULT),
                   VXGraphicBufferPoolCreate_dmabuf(DEFAULT)) {}
};

// ---- Buffers ----------------------------------------------------------------------------------

// Catches: ids that are not the descriptor, identities that are not the memory's or an error's, a
// native value that is empty or typed, an offset that is reported although it is meant to stay 0,
// the wrong texts about a descriptor's life.
TEST_F(DmabufTest, BuffersAreTheirDescriptor) {
    for (auto& buffer : fetchBoth()) {
        const std::string fd = std::to_string(buffer->fd());
        if (buffer->isLinear()) {
            EXPECT_LOGGED(DEBUG, "Allocated DMA Linear buffer fd " + fd + " mBufferSize 100");
        }
        EXPECT_EQ(buffer->id(), buffer->fd());
        struct stat status = {};
        ASSERT_EQ(fstat(buffer->fd(), &status), 0);
        EXPECT_EQ(buffer->uid(), status.st_ino);
        EXPECT_EQ(buffer->nativeBuffer().type(), typeid(std::nullptr_t));
        EXPECT_EQ(linear->createFromNative(buffer->nativeBuffer()), nullptr);
        EXPECT_EQ(graphic->createFromNative(buffer->nativeBuffer()), nullptr);
        EXPECT_EQ(buffer->size(), 0u);
        EXPECT_EQ(buffer->setFilledRange(16, 100), VX_OK);
        EXPECT_EQ(buffer->size(), 100u);
        EXPECT_EQ(buffer->offset(), 0u);
        buffer.reset();
        EXPECT_LOGGED(DEBUG, "Close Fd " + fd);
    }
    EXPECT_EQ(getUniqueIdForFileDescriptor(-1), 0u);
    EXPECT_LOGGED(ERROR, "Failed to fstat(-1)");
}

// Catches: the frame size always taken for the allocated size, or checked against it; a crop that
// is changed on its way.
TEST_F(DmabufTest, FrameSizeAndCropAreTheHolders) {
    const auto picture = fetch(*graphic);
    EXPECT_EQ(geometryOf(*picture), Values({100, 50, 128, 64, 100, 50}));
    EXPECT_EQ(picture->setFrameWidth(5000), VX_OK);
    EXPECT_EQ(picture->frameHeight(), 50u);
    EXPECT_EQ(picture->setFrameHeight(0), VX_OK);
    EXPECT_EQ(geometryOf(*picture), Values({100, 50, 128, 64, 5000, 0}));
    EXPECT_EQ(sidesOf(picture->crop()), Values({0, 0, 0, 0}));
    EXPECT_EQ(picture->setCrop({1, 2, 3000, 4}), VX_OK);
    EXPECT_EQ(sidesOf(picture->crop()), Values({1, 2, 3000, 4}));
}

// ---- Settings ---------------------------------------------------------------------------------

// Catches: a usage that resets the graphic pool, or that does not reset the linear one; a secure
// buffer; an alignment that shapes the buffer or resets nothing, sizes that are not cut to 32 bits.
TEST_F(DmabufTest, SettingsResetExceptAUsageOfPictures) {
    linear->setMaxSlots(1);
    graphic->setMaxSlots(1);
    for (const VXBufferUsage usage : {DEFAULT, CACHED, SECURE, MULTIVIEW}) {
        for (const auto& buffer : fetchBoth()) EXPECT_FALSE(buffer->isSecure());
        EXPECT_EQ(graphic->setUsage(usage), VX_OK);
        EXPECT_EQ(memories(), 2);
        EXPECT_EQ(linear->setUsage(usage), VX_OK);
        EXPECT_EQ(memories(), 1);
    }
    EXPECT_EQ(linear->setSize((size_t{1} << 32) + 100), VX_OK);
    fetch(*linear);
    EXPECT_EQ(linear->setAlignment(4096), VX_OK);
    EXPECT_EQ(memories(), 1);
    EXPECT_EQ(fetch(*linear)->capacity(), 100u);
}

// Catches: a short or empty buffer where a size is missing or does not fit 32 bits.
TEST_F(DmabufTest, ImpossibleSizesAreNoMemory) {
    std::shared_ptr<VXBuffer> buffer;
    EXPECT_EQ(VXLinearBufferPoolCreate_dmabuf(DEFAULT)->fetch(&buffer), VX_NO_MEMORY);
    EXPECT_LOGGED(ERROR, "Failed to Allocate DMA Buffer");
    graphic->setPixelFormat(0x16);  // 8 bytes a pixel
    std::shared_ptr<VXGraphicBuffer> picture;
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

// Catches: a wrong row in the format table, sizes that are not the layout library's, and padding or
// its absence on the wrong side of the HEIC flag.
TEST_F(DmabufTest, GeometryComesFromTheLayoutLibrary) {
    const struct {
        uint32_t pixelFormat, colorFormat;
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
            const auto picture = fetch(*graphic);
            const auto stride = padded ? VideoBufferLayout_GetStrideInPixels(color, 101, 1) : 101;
            const auto lines = padded ? VideoBufferLayout_GetScanlines(color, 51, 1) : 51;
            EXPECT_EQ(geometryOf(*picture), Values({101, 51, stride, lines, 101, 51}));
            EXPECT_EQ(picture->capacity(), VideoBufferLayout_GetBufferSize(color, stride, lines));
            EXPECT_EQ(picture->pixelFormat(), row.pixelFormat);
        }
    }
}

// Catches: an unknown format that is let through, or that leaves half a geometry: width and height
// are stored, the rest stays, the pool is not reset. A known one set alone resets but computes
// nothing.
TEST_F(DmabufTest, AFormatAloneKeepsTheOldGeometry) {
    EXPECT_EQ(VXGraphicBufferPoolCreate_dmabuf(DEFAULT)->setResolution(64, 64), VX_ERROR);
    EXPECT_LOGGED(ERROR, "Error. Pixelformat not found");
    graphic->setMaxSlots(1);
    const size_t capacity = fetch(*graphic)->capacity();
    for (const uint32_t format : {0x16u, 0x1234u}) {
        EXPECT_EQ(graphic->setPixelFormat(format), VX_OK);
        EXPECT_EQ(memories(), 0);
        const auto picture = fetch(*graphic);
        EXPECT_EQ(picture->capacity(), capacity);
        EXPECT_EQ(picture->pixelFormat(), format);
    }
    EXPECT_EQ(graphic->setResolution(10, 20), VX_ERROR);
    EXPECT_EQ(memories(), 1);
    graphic->reset();
    const auto picture = fetch(*graphic);
    EXPECT_EQ(geometryOf(*picture), Values({10, 20, 128, 64, 10, 20}));
    EXPECT_EQ(picture->capacity(), capacity);
    EXPECT_EQ(graphic->reserved(), VX_OK);
}
