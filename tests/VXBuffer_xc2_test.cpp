#include <C2PlatformSupport.h>
#include <VXBuffer_xc2.h>
#include <VideoBufferLayout.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <vexa_testing/Codec2.h>

#include <chrono>
#include <thread>

#include "support/BufferTest.h"

using namespace vexa;
using vexa_testing::Call;

constexpr char kTag[] = "Vexa::VXBuffer_XC2";

class Xc2Test : public BufferTest {
protected:
    void SetUp() override {
        EXPECT_EQ(linear->setSize(100), VX_OK);
        EXPECT_EQ(graphic->setPixelFormat(0x36), VX_OK);
        EXPECT_EQ(graphic->setResolution(100, 50), VX_OK);
    }

    static std::shared_ptr<VXBuffer> fetch(VXLinearBufferPool& pool) {
        std::shared_ptr<VXBuffer> buffer;
        EXPECT_EQ(pool.fetch(&buffer), VX_OK);
        return buffer;
    }
    static std::shared_ptr<VXGraphicBuffer> fetch(VXGraphicBufferPool& pool) {
        std::shared_ptr<VXGraphicBuffer> buffer;
        EXPECT_EQ(pool.fetch(&buffer), VX_OK);
        return buffer;
    }

    // The codec library's buffer inside.
    static std::shared_ptr<xc2::XC2Buffer> nativeOf(VXBuffer& buffer) {
        const std::any native = buffer.nativeBuffer();
        const auto* container = std::any_cast<VXNativeBufContainer<xc2::XC2Buffer>>(&native);
        return container != nullptr ? container->buffer : nullptr;
    }
    static std::any containing(std::shared_ptr<xc2::XC2Buffer> buffer) {
        return VXNativeBufContainer<xc2::XC2Buffer>(std::move(buffer));
    }

    const std::shared_ptr<VXLinearBufferPool> linear = VXLinearBufferPoolCreate_xc2(DEFAULT);
    const std::shared_ptr<VXGraphicBufferPool> graphic = VXGraphicBufferPoolCreate_xc2(DEFAULT);
};

// ---- Buffers ----------------------------------------------------------------------------------

// Catches: accessors that do not forward, or that forward to the wrong one of their neighbours.
TEST_F(Xc2Test, LinearBuffersForwardToTheVendors) {
    const auto first = fetch(*linear);
    const auto buffer = fetch(*linear);
    const auto native = nativeOf(*buffer);
    ASSERT_NE(native, nullptr);
    EXPECT_EQ(buffer->fd(), native->linearBlock().fd);
    EXPECT_EQ(first->id(), 0);
    EXPECT_EQ(buffer->id(), 1);
    EXPECT_EQ(buffer->uid(), native->uniqueId());
    EXPECT_EQ(buffer->setFilledRange(16, 64), VX_OK);
    EXPECT_EQ(buffer->offset(), 16u);
    EXPECT_EQ(buffer->size(), 64u);
    EXPECT_EQ(native->linearBlock().offset, 16u);
    buffer->reset();
    EXPECT_EQ(buffer->offset(), 0u);
    EXPECT_EQ(linear->setAlignment(64), VX_OK);
    EXPECT_EQ(fetch(*linear)->capacity(), 128u);
}

// Catches: the same for pictures; halves of the crop that are not swapped on both ways.
TEST_F(Xc2Test, PicturesForwardToTheVendors) {
    const auto picture = fetch(*graphic);
    const auto native = nativeOf(*picture);
    ASSERT_NE(native, nullptr);
    EXPECT_EQ(picture->fd(), native->graphicBlock().fd);
    EXPECT_EQ(picture->id(), picture->fd());
    EXPECT_EQ(picture->uid(), native->uniqueId());
    EXPECT_EQ(picture->width(), 100u);
    EXPECT_EQ(picture->height(), 50u);
    EXPECT_EQ(picture->stride(), 128u);
    EXPECT_EQ(picture->sliceHeight(), 64u);
    EXPECT_EQ(picture->frameWidth(), 100u);
    EXPECT_EQ(picture->setFrameWidth(7), VX_OK);
    EXPECT_EQ(picture->setFrameHeight(9), VX_OK);
    EXPECT_EQ(picture->frameWidth(), 7u);
    EXPECT_EQ(native->frameHeight(), 9u);
    EXPECT_EQ(picture->frameHeight(), 9u);

    EXPECT_EQ(picture->setCrop({1, 2, 3, 4}), VX_OK);
    EXPECT_EQ(native->crop().width, 3u);
    EXPECT_EQ(native->crop().height, 4u);
    EXPECT_EQ(native->crop().left, 1u);
    EXPECT_EQ(native->crop().top, 2u);
    EXPECT_EQ(picture->crop().left, 1u);
    EXPECT_EQ(picture->crop().top, 2u);
    EXPECT_EQ(picture->crop().width, 3u);
    EXPECT_EQ(picture->crop().height, 4u);
}

// Catches: a null pointer, or the block of another kind, that is followed.
TEST_F(Xc2Test, WithoutAGoodBufferTheAnswersAreTheAgreedOnes) {
    for (const auto& bad : {std::shared_ptr<xc2::XC2Buffer>(), nativeOf(*fetch(*graphic))}) {
        VXBuffer_XC2 buffer(bad, true);
        EXPECT_EQ(buffer.fd(), -1);
        EXPECT_EQ(buffer.id(), -1);
        EXPECT_EQ(buffer.uid(), bad != nullptr ? bad->uniqueId() : 0);
        EXPECT_TRUE(buffer.isSecure());
        EXPECT_EQ(buffer.capacity() + buffer.size() + buffer.offset(), 0u);
        EXPECT_EQ(buffer.setFilledRange(1, 2), VX_NO_INIT);
        EXPECT_EQ(buffer.map()->vaddr(), MAP_FAILED);
        EXPECT_EQ(nativeOf(buffer), bad);
        EXPECT_TRUE(buffer.enumviews().empty());
        EXPECT_EQ(buffer.getview(0), nullptr);
    }
    for (const auto& bad : {std::shared_ptr<xc2::XC2Buffer>(), nativeOf(*fetch(*linear))}) {
        log.clear();
        VXGraphicBuffer_XC2 picture(bad, false);
        EXPECT_EQ(picture.fd(), -1);
        EXPECT_EQ(picture.id(), -1);
        EXPECT_EQ(picture.capacity() + picture.size() + picture.offset(), 0u);
        EXPECT_EQ(picture.width() + picture.height() + picture.stride() + picture.sliceHeight() +
                      picture.frameWidth() + picture.frameHeight() + picture.pixelFormat(),
                  0u);
        EXPECT_EQ(picture.setFilledRange(1, 2), VX_NO_INIT);
        EXPECT_EQ(picture.size(), 0u);
        EXPECT_EQ(picture.setFrameWidth(1), VX_OK);
        EXPECT_EQ(picture.setFrameHeight(1), VX_OK);
        const auto crop = picture.crop();
        EXPECT_EQ(crop.left + crop.top + crop.width + crop.height, 0u);
        EXPECT_EQ(picture.setCrop({1, 2, 3, 4}), VX_NO_INIT);
        EXPECT_EQ(log.count("!mXC2Buf || !mXC2Buf->isGraphic() : Line# "), 2);
        EXPECT_EQ(picture.map()->vaddr(), MAP_FAILED);
        EXPECT_EQ(picture.getview(0), nullptr);
        EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, "VX Aux handle is NULL !!"), 1);
    }
}

// Catches: the four sources of a picture's size asked in another order, an override that ends, an
// interlaced picture measured like a progressive one.
TEST_F(Xc2Test, TheSizeOfAPictureComesFromTheFirstThatKnows) {
    graphic->setResolution(100, 101);
    const auto picture = fetch(*graphic);
    const auto native = nativeOf(*picture);
    const auto used = [](bool interlaced) {
        return VideoBufferLayout_GetBufferSizeUsed(VIDEO_COLOR_YUV420_10, 100, 101, interlaced);
    };
    ASSERT_NE(used(false), used(true));
    EXPECT_EQ(picture->size(), used(false));
    EXPECT_EQ(log.count("interlace type"), 0);
    native->setInfo(0xC2008005, 0);
    EXPECT_EQ(picture->size(), used(false));
    native->setInfo(0xD2008005, 2);
    EXPECT_EQ(picture->size(), used(true));
    native->setInfo(0xC2008005, 1);
    native->setInfo(0xD2008005, 0);
    EXPECT_EQ(picture->size(), used(true));
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, "input interlace type = 1"), 1);
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, "output interlace type = 2"), 1);

    native->setCompressedSize(777);
    EXPECT_EQ(picture->size(), 777u);
    EXPECT_EQ(picture->setFilledRange(0, 1234), VX_OK);
    EXPECT_EQ(native->compressedSize(), 1234u);
    native->setCompressedSize(5);
    EXPECT_EQ(picture->size(), 1234u);
    EXPECT_EQ(picture->setFilledRange(3, 0), VX_OK);
    EXPECT_EQ(picture->size(), 0u);
    EXPECT_EQ(picture->offset(), 0u);
}

// ---- Fences -----------------------------------------------------------------------------------

// Catches: a missing fence that is followed or that blocks, a wait that ends badly and passes for good,
// a time-out other than half a second.
TEST_F(Xc2Test, FencesAnswerForTheVendors) {
    const auto plain = fetch(*graphic);
    EXPECT_FALSE(plain->isFenceValid());
    EXPECT_FALSE(plain->isFenceReady());
    EXPECT_EQ(plain->waitForFenceSignal(), VX_OK);
    EXPECT_EQ(VXFence_XC2(nullptr).fd(), -1);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "fence is null"), 4);

    const auto withFence = [&](const C2Fence& fence) {
        nativeOf(*plain)->setFence(std::make_shared<C2Fence>(fence));
        return graphic->createFromNative(plain->nativeBuffer());
    };
    const auto fired = withFence(C2Fence());
    EXPECT_TRUE(fired->isFenceValid());
    EXPECT_TRUE(fired->isFenceReady());
    EXPECT_EQ(fired->waitForFenceSignal(), VX_OK);

    vexa_testing::FenceTrigger trigger;
    const auto unfired = withFence(trigger.fence());
    EXPECT_TRUE(unfired->isFenceValid());
    EXPECT_FALSE(unfired->isFenceReady());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(unfired->waitForFenceSignal(), VX_ERROR);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(499));
    trigger.fire();
    EXPECT_TRUE(unfired->isFenceReady());
    EXPECT_EQ(unfired->waitForFenceSignal(), VX_OK);

    vexa_testing::FenceTrigger given;
    const auto abandoned = withFence(given.fence());
    given.abandon();
    EXPECT_FALSE(abandoned->isFenceValid());
    EXPECT_FALSE(abandoned->isFenceReady());
    EXPECT_EQ(abandoned->waitForFenceSignal(), VX_ERROR);
}

// Catches: a waiter that sleeps through the signal.
TEST_F(Xc2Test, AWaiterIsWokenByTheSignal) {
    vexa_testing::FenceTrigger trigger;
    C2Fence fence = trigger.fence();
    c2_status_t result = C2_CORRUPTED;
    std::thread waiter([&] { result = fence.wait(c2_nsecs_t{60} * 1000000000); });
    trigger.fire();
    waiter.join();
    EXPECT_EQ(result, C2_OK);
}

// ---- Formats and usages -------------------------------------------------------------------------

// Catches: a wrong row in either format table, and tables that were made inverse.
TEST_F(Xc2Test, FormatsAreTranslatedBothWays) {
    const struct {
        uint32_t set, vendor, readBack;
    } rows[] = {{0x1, 0x1, 0x1},
                {0x16, 0x16, 0},
                {0x23, 0x23, 0},
                {0x36, 0x36, 0x36},
                {0x109, 0x109, 0},
                {0x114, 0x114, 0x114},
                {0x32315659, 0x32315659, 0x32315659},
                {0x7F000789, 0x7F000789, 0},
                {0x7FA30C04, 0x7FA30C04, 0x7FA30C04},
                {0x7FA30C06, 0x7FA30C06, 0x7FA30C06},
                {0x7FA30C09, 0x7FA30C09, 0x7FA30C09},
                {0xC2000000, 0xC2000000, 0xC2000000},
                {0x55, 0x3C, 0x55},
                {0x7FA30C10, 0x133, 0x7FA30C10},
                {0xC2000001, 0x2B, 0xC2000001},
                {0xC2000002, 0xC2000001, 0xC2000002}};
    for (const auto& row : rows) {
        log.clear();
        ASSERT_EQ(graphic->setPixelFormat(row.set), VX_OK);
        const auto picture = fetch(*graphic);
        EXPECT_EQ(nativeOf(*picture)->graphicBlock().format, row.vendor);
        EXPECT_EQ(picture->pixelFormat(), row.readBack) << std::hex << row.set;
        EXPECT_EQ(log.count("Unrecognized C2 format : 0x"), row.readBack == 0 ? 1 : 0);
    }
}

// Catches: an unknown format that is refused too early, or that is allocated in some other layout.
TEST_F(Xc2Test, AnUnknownFormatCannotBeAllocated) {
    for (const uint32_t format : {0u, 0x3Cu, 0x133u, 0x2Bu}) {  // the last three are the vendor's
        log.clear();
        EXPECT_EQ(graphic->setPixelFormat(format), VX_OK);
        char text[64];
        snprintf(text, sizeof(text), "Unrecognized VX format : 0x%x", format);
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, text), 1);
        std::shared_ptr<VXGraphicBuffer> picture;
        EXPECT_EQ(graphic->fetch(&picture), VX_NO_MEMORY);
        EXPECT_EQ(log.count("mPool->allocate(&xc2Buffer) != xc2::XC2_OK : Line# "), 1);
    }
}

// Catches: a wrong usage word, at construction or later; words that carry the message of another usage.
TEST_F(Xc2Test, UsagesBecomeWords) {
    const struct {
        uint32_t usage;
        uint64_t atStart, linear, graphic;
    } rows[] = {{0, 0x20410000, 0x20410000, 0x10000020410300},
                {1, 0x20410000, 0x20410001, 0x10000020410301},
                {2, 0x20410002, 0x20410002, 0x10000020410302},
                {3, 0x20410002, 0x400000020410000, 0x410000020410300},
                {4, 0x20410000, 0x20410000, 0x10000020410300}};
    for (const auto& row : rows) {
        const auto usage = static_cast<VXBufferUsage>(row.usage);
        const auto pool = VXLinearBufferPoolCreate_xc2(usage);
        EXPECT_EQ(pool->setSize(1), VX_OK);
        EXPECT_EQ(fetch(*pool)->isSecure(), (row.usage & 2) != 0);
        EXPECT_EQ(vexa_testing::lastFetchUsage(), row.atStart) << row.usage;

        log.clear();
        EXPECT_EQ(linear->setUsage(usage), VX_OK);
        EXPECT_EQ(log.count("CACHED/SECURE"), 0);
        EXPECT_FALSE(fetch(*linear)->isSecure());  // fixed when the pool was made
        EXPECT_EQ(vexa_testing::lastFetchUsage(), row.linear) << row.usage;
        EXPECT_EQ(graphic->setUsage(usage), VX_OK);
        EXPECT_FALSE(fetch(*graphic)->isSecure());
        EXPECT_EQ(vexa_testing::lastFetchUsage(), row.graphic) << row.usage;
        EXPECT_EQ(
            log.count(ANDROID_LOG_DEBUG, kTag, "setUsage (VXBufferUsage usage):  usage: MULTIVIEW"),
            row.usage == 3 ? 2 : 0);
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, kTag,
                            "setUsage (VXBufferUsage usage):  usage: CACHED/SECURE"),
                  row.usage == 0 || row.usage > 3 ? 1 : 0);
    }
}

// Catches: a usage, an alignment or a HEIC flag that resets, or does not reset, like the others.
TEST_F(Xc2Test, SettingsResetThePools) {
    linear->setMaxSlots(1);
    graphic->setMaxSlots(1);
    const struct {
        const char* name;
        VXError (*set)(VXLinearBufferPool&, VXGraphicBufferPool&);
        int left;
    } rows[] = {
        {"size", [](auto& l, auto&) { return l.setSize(1); }, 1},
        {"alignment", [](auto& l, auto&) { return l.setAlignment(8); }, 1},
        {"linear usage", [](auto& l, auto&) { return l.setUsage(CACHED); }, 1},
        {"format", [](auto&, auto& g) { return g.setPixelFormat(0x1); }, 1},
        {"resolution", [](auto&, auto& g) { return g.setResolution(8, 8); }, 1},
        {"graphic usage", [](auto&, auto& g) { return g.setUsage(CACHED); }, 1},
        {"HEIC", [](auto&, auto& g) { return g.setHEICFlag(true); }, 2},
        {"reserved", [](auto&, auto& g) { return g.reserved(); }, 2},
    };
    for (const auto& row : rows) {
        fetch(*linear).reset();
        fetch(*graphic).reset();
        ASSERT_EQ(memories(), 2);
        EXPECT_EQ(row.set(*linear, *graphic), VX_OK) << row.name;
        EXPECT_EQ(memories(), row.left) << row.name;
    }
}

// ---- Views ------------------------------------------------------------------------------------

// Catches: views that are missing, made by the construction alone, share memory, or are secure.
TEST_F(Xc2Test, MultiViewBuffersHaveTwoViews) {
    const auto secureLinear = VXLinearBufferPoolCreate_xc2(MULTIVIEW);
    const auto secureGraphic = VXGraphicBufferPoolCreate_xc2(MULTIVIEW);
    secureLinear->setSize(100);
    secureGraphic->setPixelFormat(0x36);
    secureGraphic->setResolution(100, 50);
    for (const bool multiView : {false, true}) {
        if (multiView) {
            EXPECT_EQ(secureLinear->setUsage(MULTIVIEW), VX_OK);
            EXPECT_EQ(secureGraphic->setUsage(MULTIVIEW), VX_OK);
        }
        for (const std::shared_ptr<VXBuffer>& buffer :
             {fetch(*secureLinear), std::shared_ptr<VXBuffer>(fetch(*secureGraphic))}) {
            log.clear();
            EXPECT_TRUE(buffer->isSecure());
            if (!multiView) {
                EXPECT_TRUE(buffer->enumviews().empty());
                EXPECT_EQ(buffer->getview(0), nullptr);
                continue;
            }
            EXPECT_EQ(buffer->enumviews(), (std::list<xc2::viewId_t>{0, 1}));
            EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, "size of viewIds list is 2"), 1);
            const auto left = buffer->getview(0), right = buffer->getview(1);
            ASSERT_TRUE(left != nullptr && right != nullptr);
            EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, "VX Aux handle obtained !!"),
                      buffer->isGraphic() ? 2 : 0);
            EXPECT_EQ(left->isGraphic(), buffer->isGraphic());
            EXPECT_EQ(left->capacity(), buffer->capacity());
            EXPECT_FALSE(left->isSecure());
            EXPECT_NE(left->uid(), right->uid());
            EXPECT_NE(left->fd(), right->fd());
            EXPECT_EQ(left->uid(), buffer->getview(0)->uid());
            EXPECT_TRUE(left->enumviews().empty());
            EXPECT_EQ(buffer->getview(2), nullptr);
        }
    }
}

// Catches: a view that is missing from a buffer, or that stays behind when another one fails.
TEST_F(Xc2Test, AFailedViewFailsTheWholeBuffer) {
    ASSERT_EQ(linear->setUsage(MULTIVIEW), VX_OK);
    vexa_testing::failCall(Call::FetchBlock, 3, C2_NO_MEMORY);
    std::shared_ptr<VXBuffer> buffer;
    EXPECT_EQ(linear->fetch(&buffer), VX_NO_MEMORY);
    EXPECT_EQ(memories(), 0);
}

// ---- Native buffers ---------------------------------------------------------------------------

// Catches: a wrapped buffer that is another one, that is kept by the pool, or that the wrong kind of
// pool takes.
TEST_F(Xc2Test, NativeBuffersAreWrappedByTheirKindOfPool) {
    graphic->setMaxSlots(1);
    linear->setMaxSlots(1);
    auto buffer = fetch(*linear);
    auto picture = fetch(*graphic);
    auto wrapped = linear->createFromNative(buffer->nativeBuffer());
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->uid(), buffer->uid());
    EXPECT_FALSE(wrapped->isSecure());
    const auto wrappedPicture = graphic->createFromNative(picture->nativeBuffer());
    ASSERT_NE(wrappedPicture, nullptr);
    EXPECT_EQ(wrappedPicture->fd(), picture->fd());

    for (const std::any& native : {std::any(), std::any(1), std::any(nullptr), containing(nullptr),
                                   std::any(nativeOf(*buffer))}) {
        EXPECT_EQ(linear->createFromNative(native), nullptr);
        EXPECT_EQ(graphic->createFromNative(native), nullptr);
    }
    EXPECT_EQ(linear->createFromNative(picture->nativeBuffer()), nullptr);
    EXPECT_EQ(graphic->createFromNative(buffer->nativeBuffer()), nullptr);
    EXPECT_EQ(
        log.count(ANDROID_LOG_ERROR, kTag, "LinearPool::createFromNative: xc2 buf is not linear !"),
        6);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag,
                        "GraphicPool::createFromNative: xc2 buf is not graphic !"),
              6);

    buffer.reset();  // kept by the pool
    wrapped.reset();
    EXPECT_EQ(memories(), 2);
    linear->reset();
    EXPECT_EQ(memories(), 1);
}

// ---- Failures -----------------------------------------------------------------------------------

// Catches: a pool without its block pool that crashes, or that answers otherwise than with VX_NO_INIT.
TEST_F(Xc2Test, WithoutABlockPoolNothingWorksAndNothingBreaks) {
    vexa_testing::failCall(Call::BlockPool, 1, C2_NO_MEMORY);
    const auto noLinear = VXLinearBufferPoolCreate_xc2(DEFAULT);
    vexa_testing::failCall(Call::BlockPool, 1, C2_NOT_FOUND);
    const auto noGraphic = VXGraphicBufferPoolCreate_xc2(DEFAULT);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Failed to get Codec2 BlockPool"), 2);
    EXPECT_EQ(noLinear->setSize(1), VX_NO_INIT);
    EXPECT_EQ(noLinear->setAlignment(1), VX_NO_INIT);
    EXPECT_EQ(noLinear->setUsage(DEFAULT), VX_NO_INIT);
    EXPECT_EQ(noGraphic->setUsage(DEFAULT), VX_NO_INIT);
    EXPECT_EQ(noGraphic->setPixelFormat(0x36), VX_NO_INIT);
    EXPECT_EQ(noGraphic->setResolution(1, 1), VX_NO_INIT);
    std::shared_ptr<VXBuffer> buffer;
    EXPECT_EQ(noLinear->fetch(&buffer), VX_NO_MEMORY);
    std::shared_ptr<VXGraphicBuffer> picture;
    EXPECT_EQ(noGraphic->fetch(&picture), VX_NO_MEMORY);
    EXPECT_EQ(log.count("mPool == nullptr : Line# "), 8);
    EXPECT_EQ(noGraphic->setHEICFlag(true), VX_OK);
}

// Catches: a setting that the vendor's pool refused and that passes for made, or that resets the pool.
TEST_F(Xc2Test, ARefusedSettingIsAnErrorAndChangesNothing) {
    graphic->setMaxSlots(1);
    fetch(*graphic).reset();
    EXPECT_EQ(graphic->setResolution(0, 5), VX_ERROR);
    vexa_testing::failCall(Call::VendorSetting, 1, xc2::XC2_BAD_STATE);
    EXPECT_EQ(graphic->setResolution(8, 8), VX_ERROR);
    vexa_testing::failCall(Call::VendorSetting, 1, xc2::XC2_BAD_STATE);
    EXPECT_EQ(graphic->setPixelFormat(0x1), VX_ERROR);
    EXPECT_EQ(log.count("status != xc2::XC2_OK : Line# "), 3);
    EXPECT_EQ(memories(), 1);
    EXPECT_EQ(fetch(*graphic)->pixelFormat(), 0x36u);
}

// Catches: an answer of the vendor's pool that is taken without a look: a status, no buffer, the wrong
// kind.
TEST_F(Xc2Test, OddAnswersOfTheVendorsPoolAreNoMemory) {
    const auto someLinear = nativeOf(*fetch(*linear));
    const auto someGraphic = nativeOf(*fetch(*graphic));
    const struct {
        xc2::XC2Status status;
        bool wrongKind;
        const char* linearText;
        const char* graphicText;
    } rows[] = {
        {xc2::XC2_BAD_STATE, false, "mPool->allocate(&xc2Buffer) != xc2::XC2_OK : Line# ",
         "mPool->allocate(&xc2Buffer) != xc2::XC2_OK : Line# "},
        {xc2::XC2_OK, false, "xc2Buffer == nullptr : Line# ", "xc2Buffer == nullptr : Line# "},
        {xc2::XC2_OK, true, "xc2Buffer->isLinear() == false : Line# ",
         "xc2Buffer->isGraphic() == false : Line# "},
    };
    for (const auto& row : rows) {
        log.clear();
        vexa_testing::scriptVendorAllocate(row.status, row.wrongKind ? someGraphic : nullptr);
        std::shared_ptr<VXBuffer> buffer;
        EXPECT_EQ(linear->fetch(&buffer), VX_NO_MEMORY);
        EXPECT_EQ(log.count(row.linearText), 1);
        log.clear();
        vexa_testing::scriptVendorAllocate(row.status, row.wrongKind ? someLinear : nullptr);
        std::shared_ptr<VXGraphicBuffer> picture;
        EXPECT_EQ(graphic->fetch(&picture), VX_NO_MEMORY);
        EXPECT_EQ(log.count(row.graphicText), 1);
    }
}

// Catches: a short buffer where a size does not fit 32 bits.
TEST_F(Xc2Test, ImpossibleSizesAreNoMemory) {
    std::shared_ptr<VXBuffer> buffer;
    linear->setSize(UINT32_MAX - 1);
    linear->setAlignment(4096);
    EXPECT_EQ(linear->fetch(&buffer), VX_NO_MEMORY);
    linear->setSize(0);
    EXPECT_EQ(linear->fetch(&buffer), VX_NO_MEMORY);
    std::shared_ptr<VXGraphicBuffer> picture;
    ASSERT_EQ(graphic->setResolution(65535, 65535), VX_OK);
    EXPECT_EQ(graphic->fetch(&picture), VX_NO_MEMORY);
    EXPECT_EQ(log.count("cannot allocate 4294967295 bytes from heap system"), 2);
}

// Catches: the wrong texts about an allocation.
TEST_F(Xc2Test, AllocationsAreLogged) {
    const auto secure = VXLinearBufferPoolCreate_xc2(SECURE);
    secure->setSize(100);
    const auto buffer = fetch(*secure);
    char text[128];
    snprintf(text, sizeof(text), "Allocated (Secure) buffer: %p (size=100 fd=%d)",
             static_cast<void*>(buffer.get()), buffer->fd());
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, text), 1);
    const auto picture = fetch(*graphic);
    EXPECT_EQ(log.count("Allocated (Non-Secure) buffer: "), 1);
    EXPECT_EQ(log.count("(size=100x50 fd=" + std::to_string(picture->fd()) + ")"), 1);
}
