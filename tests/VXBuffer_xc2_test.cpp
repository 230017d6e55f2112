#include <C2PlatformSupport.h>
#include <VXBuffer_xc2.h>
#include <VideoBufferLayout.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <vexa_testing/Codec2.h>

#include <array>
#include <chrono>

#include "support/BufferTest.h"
#include "support/CountedMemory.h"

using namespace vexa;
using vexa_testing::Call;
using vexa_testing::failCall;
using NativePtr = std::shared_ptr<xc2::XC2Buffer>;

constexpr char kTag[] = "Vexa::VXBuffer_XC2";

class Xc2Test : public PoolTest {
protected:
    Xc2Test()
        : PoolTest(VXLinearBufferPoolCreate_xc2(DEFAULT), VXGraphicBufferPoolCreate_xc2(DEFAULT)) {}

    // The codec library's buffer inside.
    static NativePtr nativeOf(VXBuffer& buffer) {
        const std::any native = buffer.nativeBuffer();
        const auto* container = std::any_cast<VXNativeBufContainer<xc2::XC2Buffer>>(&native);
        return container != nullptr ? container->buffer : nullptr;
    }

    // Expects both pools to have no memory for a buffer.
    void expectNoMemory(VXLinearBufferPool& linearPool, VXGraphicBufferPool& graphicPool) {
        std::shared_ptr<VXBuffer> buffer;
        EXPECT_EQ(linearPool.fetch(&buffer), VX_NO_MEMORY);
        std::shared_ptr<VXGraphicBuffer> picture;
        EXPECT_EQ(graphicPool.fetch(&picture), VX_NO_MEMORY);
    }
};

// ---- Buffers ----------------------------------------------------------------------------------

// Catches: accessors that do not forward, or that forward to the wrong one of their neighbors; the
// wrong text about an allocation; halves of the crop that are not swapped on both ways.
TEST_F(Xc2Test, BuffersForwardToTheVendors) {
    EXPECT_EQ(fetch(*linear)->id(), 0);
    EXPECT_EQ(linear->setAlignment(64), VX_OK);
    const auto buffer = fetch(*linear);
    const auto native = nativeOf(*buffer);
    ASSERT_NE(native, nullptr);
    EXPECT_EQ(buffer->fd(), native->linearBlock().fd);
    EXPECT_EQ(buffer->id(), 1);
    EXPECT_EQ(buffer->offset() + buffer->size(), 0u);
    EXPECT_EQ(buffer->uid(), native->uniqueId());
    EXPECT_EQ(buffer->capacity(), 128u);
    EXPECT_EQ(buffer->setFilledRange(16, 64), VX_OK);
    EXPECT_EQ(buffer->offset(), 16u);
    EXPECT_EQ(buffer->size(), 64u);
    EXPECT_EQ(native->linearBlock().offset, 16u);
    buffer->reset();
    EXPECT_EQ(buffer->offset() + buffer->size(), 0u);
    char text[128];
    snprintf(text, sizeof(text), "Allocated (Non-Secure) buffer: %p (size=128 fd=%d)",
             static_cast<void*>(buffer.get()), buffer->fd());
    EXPECT_LOGGED(DEBUG, text);

    const auto picture = fetch(*graphic);
    const auto vendors = nativeOf(*picture);
    ASSERT_NE(vendors, nullptr);
    EXPECT_EQ(picture->fd(), vendors->graphicBlock().fd);
    EXPECT_EQ(picture->id(), picture->fd());
    EXPECT_EQ(picture->uid(), vendors->uniqueId());
    EXPECT_LOGS("(size=100x50 fd=" + std::to_string(picture->fd()) + ")");
    EXPECT_EQ(geometryOf(*picture), Values({100, 50, 128, 64, 100, 50}));
    EXPECT_EQ(picture->setFrameWidth(7), VX_OK);
    EXPECT_EQ(picture->setFrameHeight(9), VX_OK);
    EXPECT_EQ(geometryOf(*picture), Values({100, 50, 128, 64, 7, 9}));
    EXPECT_EQ(vendors->frameHeight(), 9u);
    EXPECT_EQ(picture->setCrop({1, 2, 3, 4}), VX_OK);
    EXPECT_EQ(sidesOf(vendors->crop()), Values({1, 2, 3, 4}));
    EXPECT_EQ(sidesOf(picture->crop()), Values({1, 2, 3, 4}));
}

// Catches: a null pointer, or the block of another kind, that is followed.
TEST_F(Xc2Test, WithoutAGoodBufferTheAnswersAreTheAgreedOnes) {
    const auto buffers = fetchBoth();
    for (const bool null : {true, false}) {
        log.clear();
        const NativePtr notLinear = null ? nullptr : nativeOf(*buffers[1]);
        VXBuffer_XC2 buffer(notLinear, true);
        VXGraphicBuffer_XC2 picture(null ? nullptr : nativeOf(*buffers[0]), false);
        for (VXBuffer* each : {static_cast<VXBuffer*>(&picture), static_cast<VXBuffer*>(&buffer)}) {
            EXPECT_EQ(each->fd(), -1);
            EXPECT_EQ(each->id(), -1);
            EXPECT_EQ(each->setFilledRange(1, 2), VX_NO_INIT);
            EXPECT_EQ(each->capacity() + each->size() + each->offset(), 0u);
            EXPECT_EQ(each->map()->vaddr(), MAP_FAILED);
            EXPECT_TRUE(each->enumviews().empty());
            EXPECT_EQ(each->getview(0), nullptr);
        }
        EXPECT_LOGGED(DEBUG, "VX Aux handle is NULL !!");
        EXPECT_EQ(buffer.uid(), null ? 0 : notLinear->uniqueId());
        EXPECT_TRUE(buffer.isSecure());
        EXPECT_EQ(nativeOf(buffer), notLinear);
        EXPECT_EQ(geometryOf(picture), Values({0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(picture.pixelFormat(), 0u);
        EXPECT_EQ(picture.setFrameWidth(1), VX_OK);
        EXPECT_EQ(picture.setFrameHeight(1), VX_OK);
        EXPECT_EQ(sidesOf(picture.crop()), Values({0, 0, 0, 0}));
        EXPECT_EQ(picture.setCrop({1, 2, 3, 4}), VX_NO_INIT);
        EXPECT_EQ(log.count("!mXC2Buf || !mXC2Buf->isGraphic() : Line# "), 2);
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
    native->setInfo(0xD2008005, 2);
    EXPECT_EQ(picture->size(), used(true));
    EXPECT_EQ(log.count("input interlace type"), 0);
    native->setInfo(0xC2008005, 1);
    native->setInfo(0xD2008005, 0);
    EXPECT_EQ(picture->size(), used(true));
    EXPECT_LOGGED(DEBUG, "input interlace type = 1");
    EXPECT_LOGGED(DEBUG, "output interlace type = 2");
    native->setCompressedSize(777);
    EXPECT_EQ(picture->size(), 777u);
    EXPECT_EQ(picture->setFilledRange(3, 1234), VX_OK);
    EXPECT_EQ(native->compressedSize(), 1234u);
    native->setCompressedSize(5);
    EXPECT_EQ(picture->size(), 1234u);
    EXPECT_EQ(picture->offset(), 0u);
    picture->reset();
    EXPECT_EQ(picture->size(), 0u);
}

// Catches: a missing fence that is followed or that blocks, a wait that ends badly and passes for
// good, a time-out other than half a second.
TEST_F(Xc2Test, FencesAnswerForTheVendors) {
    const auto plain = fetch(*graphic);
    const auto expectAnswers = [&](const VXBuffer& picture, bool valid, bool ready, VXError wait) {
        EXPECT_EQ(picture.isFenceValid(), valid);
        EXPECT_EQ(picture.isFenceReady(), ready);
        EXPECT_EQ(picture.waitForFenceSignal(), wait);
    };
    const auto withFence = [&](const C2Fence& fence) {
        nativeOf(*plain)->setFence(std::make_shared<C2Fence>(fence));
        return graphic->createFromNative(plain->nativeBuffer());
    };
    expectAnswers(*plain, false, false, VX_OK);
    EXPECT_EQ(VXFence_XC2(nullptr).fd(), -1);
    failCall(Call::FenceFd, 1, 7);
    EXPECT_EQ(VXFence_XC2(std::make_shared<C2Fence>()).fd(), 7);
    EXPECT_EQ(VXFence_XC2(std::make_shared<C2Fence>()).fd(), -1);  // the host's have none
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "fence is null"), 4);
    vexa_testing::FenceTrigger trigger, given;
    const auto unfired = withFence(trigger.fence());
    const auto start = std::chrono::steady_clock::now();
    expectAnswers(*unfired, true, false, VX_ERROR);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(499));
    EXPECT_LT(waited, std::chrono::seconds(30));
    trigger.fire();
    expectAnswers(*unfired, true, true, VX_OK);
    given.abandon();
    expectAnswers(*withFence(given.fence()), false, false, VX_ERROR);
}

// ---- Formats, usages and settings ---------------------------------------------------------------

// Catches: a wrong row in either format table, tables that were made inverse, an unknown format
// that is refused too early or allocated in some other layout.
TEST_F(Xc2Test, FormatsAreTranslatedBothWays) {
    std::vector<std::array<uint32_t, 3>> rows = {
        {0x55, 0x3C, 0x55},  // set, the vendor's, read back
        {0x7FA30C10, 0x133, 0x7FA30C10},
        {0xC2000001, 0x2B, 0xC2000001},
        {0xC2000002, 0xC2000001, 0xC2000002}};
    for (const uint32_t same :
         {0x1u, 0x36u, 0x114u, 0x32315659u, 0x7FA30C04u, 0x7FA30C06u, 0x7FA30C09u, 0xC2000000u}) {
        rows.push_back({same, same, same});
    }
    for (const uint32_t inOnly : {0x16, 0x23, 0x109, 0x7F000789}) {
        rows.push_back({inOnly, inOnly, 0});
    }
    for (const auto& [set, vendors, readBack] : rows) {
        log.clear();
        ASSERT_EQ(graphic->setPixelFormat(set), VX_OK);
        const auto picture = fetch(*graphic);
        EXPECT_EQ(nativeOf(*picture)->graphicBlock().format, vendors);
        EXPECT_EQ(picture->pixelFormat(), readBack) << std::hex << set;
        EXPECT_EQ(log.count("Unrecognized C2 format : 0x"), readBack == 0 ? 1 : 0);
    }
    for (const char* format : {"0", "3c", "133", "2b"}) {  // the last three are the vendor's
        log.clear();
        EXPECT_EQ(graphic->setPixelFormat(strtoul(format, nullptr, 16)), VX_OK);
        EXPECT_LOGGED(ERROR, std::string("Unrecognized VX format : 0x") + format);
        std::shared_ptr<VXGraphicBuffer> picture;
        EXPECT_EQ(graphic->fetch(&picture), VX_NO_MEMORY);
        EXPECT_GUARD("mPool->allocate(&xc2Buffer) != xc2::XC2_OK");
    }
}

// Catches: a wrong usage word, at construction or later; words that carry the message of another
// usage.
TEST_F(Xc2Test, UsagesBecomeWords) {
    const struct {
        uint32_t usage;
        uint64_t atStart, linear, graphic;
    } rows[] = {{0, 0x20410000, 0x20410000, 0x10000020410300},
                {1, 0x20410000, 0x20410001, 0x10000020410301},
                {2, 0x20410002, 0x20410002, 0x10000020410302},
                {3, 0x20410002, 0x400000020410000, 0x410000020410300},
                {4, 0x20410000, 0x20410000, 0x10000020410300}};
    const std::string text = "setUsage (VXBufferUsage usage):  usage: ";
    for (const auto& row : rows) {
        const auto usage = static_cast<VXBufferUsage>(row.usage);
        const auto pool = VXLinearBufferPoolCreate_xc2(usage);
        EXPECT_EQ(pool->setSize(1), VX_OK);
        const auto small = fetch(*pool);
        EXPECT_EQ(small->isSecure(), (row.usage & 2) != 0);
        EXPECT_EQ(small->capacity(), 1u);  // where no alignment is set
        EXPECT_EQ(vexa_testing::lastFetchUsage(), row.atStart) << row.usage;

        log.clear();
        EXPECT_EQ(linear->setUsage(usage), VX_OK);
        EXPECT_EQ(log.count("CACHED/SECURE"), 0);
        EXPECT_FALSE(fetch(*linear)->isSecure());  // fixed when the pool was made
        EXPECT_EQ(vexa_testing::lastFetchUsage(), row.linear) << row.usage;
        EXPECT_EQ(graphic->setUsage(usage), VX_OK);
        EXPECT_FALSE(fetch(*graphic)->isSecure());
        EXPECT_EQ(vexa_testing::lastFetchUsage(), row.graphic) << row.usage;
        EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, text + "MULTIVIEW"), row.usage == 3 ? 2 : 0);
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, kTag, text + "CACHED/SECURE"),
                  row.usage == 0 || row.usage > 3 ? 1 : 0);
    }
}

// Catches: a usage, an alignment or a HEIC flag that resets, or does not reset, like the others; a
// pool without its block pool that crashes, or that answers otherwise than with VX_NO_INIT; a
// setting that the vendor's pool refused and that passes for made, or that resets the pool.
TEST_F(Xc2Test, SettingsResetThePoolsAndNeedTheirBlockPools) {
    failCall(Call::BlockPool, 1, C2_NO_MEMORY);
    const auto noLinear = VXLinearBufferPoolCreate_xc2(DEFAULT);
    failCall(Call::BlockPool, 1, vexa_testing::kNothing);
    const auto noGraphic = VXGraphicBufferPoolCreate_xc2(DEFAULT);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Failed to get Codec2 BlockPool"), 2);
    tRefuseMemory = true;
    const auto unmadeLinear = VXLinearBufferPoolCreate_xc2(DEFAULT);
    const auto unmadeGraphic = VXGraphicBufferPoolCreate_xc2(DEFAULT);
    tRefuseMemory = false;
    EXPECT_LOGGED(ERROR, "Failed to create linear buffer pool !");
    EXPECT_LOGGED(ERROR, "Failed to create graphic pool !");
    expectNoMemory(*unmadeLinear, *unmadeGraphic);
    log.clear();
    linear->setMaxSlots(1);
    graphic->setMaxSlots(1);
    VXError (*const settings[])(VXLinearBufferPool&, VXGraphicBufferPool&) = {
        [](auto& l, auto&) { return l.setSize(1); },
        [](auto& l, auto&) { return l.setAlignment(8); },
        [](auto& l, auto&) { return l.setUsage(CACHED); },
        [](auto&, auto& g) { return g.setPixelFormat(0x1); },
        [](auto&, auto& g) { return g.setResolution(8, 8); },
        [](auto&, auto& g) { return g.setUsage(CACHED); },
        [](auto&, auto& g) { return g.setHEICFlag(true); },  // from here on without any effect
        [](auto&, auto& g) { return g.reserved(); },
    };
    for (int i = 0; i < 8; ++i) {
        fetchBoth();
        EXPECT_EQ(settings[i](*linear, *graphic), VX_OK) << i;
        EXPECT_EQ(memories(), i < 6 ? 1 : 2) << i;
        EXPECT_EQ(settings[i](*noLinear, *noGraphic), i < 6 ? VX_NO_INIT : VX_OK) << i;
    }
    expectNoMemory(*noLinear, *noGraphic);
    EXPECT_EQ(log.count("mPool == nullptr : Line# "), 8);

    EXPECT_EQ(graphic->setResolution(0, 5), VX_ERROR);
    failCall(Call::VendorSetting, 1, xc2::XC2_BAD_STATE);
    EXPECT_EQ(graphic->setPixelFormat(0x36), VX_ERROR);
    EXPECT_EQ(log.count("status != xc2::XC2_OK : Line# "), 2);
    EXPECT_EQ(memories(), 2);
    graphic->reset();
    EXPECT_EQ(fetch(*graphic)->pixelFormat(), 0x1u);
}

// ---- Views, native buffers and failures -------------------------------------------------------

// Catches: views that are missing, made by the construction alone, share memory, or are secure; a
// view that is missing from a buffer, or that stays behind when another one fails.
TEST_F(Xc2Test, MultiViewBuffersHaveTwoViews) {
    const auto secure = VXLinearBufferPoolCreate_xc2(MULTIVIEW);
    secure->setSize(100);
    EXPECT_EQ(fetch(*secure)->getview(0), nullptr);
    EXPECT_EQ(secure->setUsage(MULTIVIEW), VX_OK);
    EXPECT_EQ(linear->setUsage(MULTIVIEW), VX_OK);
    EXPECT_EQ(graphic->setUsage(MULTIVIEW), VX_OK);
    auto buffers = fetchBoth();
    buffers.push_back(fetch(*secure));
    for (const auto& buffer : buffers) {
        log.clear();
        EXPECT_EQ(buffer->enumviews(), (std::list<xc2::viewId_t>{0, 1}));
        EXPECT_LOGGED(DEBUG, "size of viewIds list is 2");
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
        EXPECT_EQ(buffer->getview(2), nullptr);
    }
    buffers.clear();
    failCall(Call::FetchBlock, 3, C2_NO_MEMORY);
    std::shared_ptr<VXBuffer> none;
    EXPECT_EQ(linear->fetch(&none), VX_NO_MEMORY);
    EXPECT_EQ(memories(), 0);
}

// Catches: a wrapped buffer that is another one, that is kept by the pool, or that the wrong kind
// of pool takes.
TEST_F(Xc2Test, NativeBuffersAreWrappedByTheirKindOfPool) {
    linear->setMaxSlots(1);
    auto buffer = fetch(*linear);
    const auto picture = fetch(*graphic);
    auto wrapped = linear->createFromNative(buffer->nativeBuffer());
    const auto wrappedPicture = graphic->createFromNative(picture->nativeBuffer());
    ASSERT_TRUE(wrapped != nullptr && wrappedPicture != nullptr);
    EXPECT_EQ(wrapped->uid(), buffer->uid());
    EXPECT_FALSE(wrapped->isSecure() || wrappedPicture->isSecure());
    EXPECT_EQ(wrappedPicture->fd(), picture->fd());

    const std::any empty = VXNativeBufContainer<xc2::XC2Buffer>();
    for (const std::any& native :
         {std::any(), std::any(1), std::any(nullptr), empty, std::any(nativeOf(*buffer))}) {
        EXPECT_EQ(linear->createFromNative(native), nullptr);
        EXPECT_EQ(graphic->createFromNative(native), nullptr);
    }
    EXPECT_EQ(linear->createFromNative(picture->nativeBuffer()), nullptr);
    EXPECT_EQ(graphic->createFromNative(buffer->nativeBuffer()), nullptr);
    EXPECT_EQ(log.count("LinearPool::createFromNative: xc2 buf is not linear !"), 6);
    EXPECT_EQ(log.count("GraphicPool::createFromNative: xc2 buf is not graphic !"), 6);
    buffer.reset();  // kept by the pool
    wrapped.reset();
    EXPECT_EQ(memories(), 2);
    linear->reset();
    EXPECT_EQ(memories(), 1);
}

// Catches: an answer of the vendor's pool that is taken without a look: a status, no buffer, the
// wrong kind; a short buffer where a size does not fit 32 bits, memory with the wrong kind of
// cache.
TEST_F(Xc2Test, OddAnswersOfTheVendorsPoolAreNoMemory) {
    const auto buffers = fetchBoth();
    const std::string failed = "mPool->allocate(&xc2Buffer) != xc2::XC2_OK";
    const struct {
        VXBufferPool& pool;
        xc2::XC2Status status;
        NativePtr native;
        std::string guard;
    } rows[] = {
        {*linear, xc2::XC2_BAD_STATE, nullptr, failed},
        {*graphic, xc2::XC2_BAD_STATE, nullptr, failed},
        {*linear, xc2::XC2_OK, nullptr, "xc2Buffer == nullptr"},
        {*graphic, xc2::XC2_OK, nullptr, "xc2Buffer == nullptr"},
        {*linear, xc2::XC2_OK, nativeOf(*buffers[1]), "xc2Buffer->isLinear() == false"},
        {*graphic, xc2::XC2_OK, nativeOf(*buffers[0]), "xc2Buffer->isGraphic() == false"},
    };
    for (const auto& row : rows) {
        log.clear();
        vexa_testing::scriptVendorAllocate(row.status, row.native);
        EXPECT_EQ(row.pool.onAllocate(), nullptr);
        EXPECT_GUARD(row.guard);
    }
    linear->setSize(UINT32_MAX - 1);
    linear->setAlignment(4096);
    graphic->setResolution(65535, 65535);
    for (const auto& [usage, heap] :
         {std::pair<VXBufferUsage, std::string>{CACHED, "system"}, {DEFAULT, "system-uncached"}}) {
        EXPECT_EQ(linear->setUsage(usage) + graphic->setUsage(usage), VX_OK);
        expectNoMemory(*linear, *graphic);
        EXPECT_EQ(log.count("cannot allocate 4294967295 bytes from heap " + heap + ": "), 2);
    }
}
