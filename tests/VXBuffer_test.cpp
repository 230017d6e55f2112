#include <VXBuffer.h>
#include <VXBuffer_dmabuf.h>
#include <VXBuffer_xc2.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "support/BufferTest.h"
#include "support/Scale.h"
#include "support/Tally.h"
#include "support/VtableSlot.h"

using namespace vexa;

constexpr char kTag[] = "Vexa::VXBuffer";

// ---- Layout -----------------------------------------------------------------------------------

static_assert(sizeof(VXBufferUsage) == 4 && DEFAULT == 0 && CACHED == 1 && SECURE == 2 &&
              MULTIVIEW == 3);
static_assert(sizeof(VXBuffer::Kind) == 4 && VXBuffer::LINEAR == 0 && VXBuffer::GRAPHIC == 1 &&
              VXBuffer::INVALID == 2);
static_assert(sizeof(VXGraphicBuffer::Rect) == 16);

// Expects the operations to stand one after the other; 0 and 1 are the destructor's slots.
void expectSlotsFrom2(const char* name, const std::vector<int>& slots) {
    for (size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(slots[i], static_cast<int>(i) + 2) << name << ", operation " << i;
    }
}

template <class Picture>
std::vector<int> pictureSlots() {
    return {slotOf(&Picture::fd),
            slotOf(&Picture::id),
            slotOf(&Picture::uid),
            slotOf(&Picture::isSecure),
            slotOf(&Picture::capacity),
            slotOf(&Picture::isFenceValid),
            slotOf(&Picture::isFenceReady),
            slotOf(&Picture::waitForFenceSignal),
            slotOf(&Picture::size),
            slotOf(&Picture::offset),
            slotOf(&Picture::setFilledRange),
            slotOf(&Picture::width),
            slotOf(&Picture::height),
            slotOf(&Picture::sliceHeight),
            slotOf(&Picture::stride),
            slotOf(&Picture::frameWidth),
            slotOf(&Picture::frameHeight),
            slotOf(&Picture::setFrameWidth),
            slotOf(&Picture::setFrameHeight),
            slotOf(&Picture::pixelFormat),
            slotOf(&Picture::crop),
            slotOf(&Picture::setCrop),
            slotOf(&Picture::nativeBuffer),
            slotOf(&Picture::map),
            slotOf(&Picture::reset),
            slotOf(&Picture::enumviews),
            slotOf(&Picture::getview)};
}

// Catches: a virtual operation added, dropped or moved, which breaks binaries built against the old
// order.
TEST(BufferLayout, SlotOrders) {
    expectSlotsFrom2(
        "VXBuffer",
        {slotOf(&VXBuffer::isLinear), slotOf(&VXBuffer::isGraphic), slotOf(&VXBuffer::isValid),
         slotOf(&VXBuffer::fd), slotOf(&VXBuffer::id), slotOf(&VXBuffer::uid),
         slotOf(&VXBuffer::isSecure), slotOf(&VXBuffer::capacity), slotOf(&VXBuffer::isFenceValid),
         slotOf(&VXBuffer::isFenceReady), slotOf(&VXBuffer::waitForFenceSignal),
         slotOf(&VXBuffer::size), slotOf(&VXBuffer::offset), slotOf(&VXBuffer::setFilledRange),
         slotOf(&VXBuffer::nativeBuffer), slotOf(&VXBuffer::enumviews), slotOf(&VXBuffer::getview),
         slotOf(&VXBuffer::map), slotOf(&VXBuffer::reset)});
    expectSlotsFrom2("VXGraphicBuffer", pictureSlots<VXGraphicBuffer>());
    expectSlotsFrom2("VXGraphicBuffer_DMABUF", pictureSlots<VXGraphicBuffer_DMABUF>());
    expectSlotsFrom2("VXGraphicBuffer_XC2", pictureSlots<VXGraphicBuffer_XC2>());
    expectSlotsFrom2("Mapping",
                     {slotOf(&VXBuffer::Mapping::vaddr), slotOf(&VXBuffer::Mapping::size)});
    expectSlotsFrom2("VXFence", {slotOf(&VXFence::waitForSignal), slotOf(&VXFence::isValid),
                                 slotOf(&VXFence::isReady), slotOf(&VXFence::fd)});
    expectSlotsFrom2("VXBufferPool",
                     {slotOf(&VXBufferPool::setUsage), slotOf(&VXBufferPool::implType),
                      slotOf(&VXBufferPool::onAllocate)});
    expectSlotsFrom2("Tracker", {slotOf(&VXBufferPool::Stash::Tracker::onRelease)});
    using Linear = VXLinearBufferPool;
    expectSlotsFrom2(
        "VXLinearBufferPool",
        {slotOf(&Linear::setSize), slotOf(&Linear::setAlignment), slotOf(&Linear::fetch),
         slotOf(&Linear::createFromNative), slotOf(&Linear::setUsage), slotOf(&Linear::implType),
         slotOf(&Linear::onAllocate)});
    using Graphic = VXGraphicBufferPool;
    expectSlotsFrom2(
        "VXGraphicBufferPool",
        {slotOf(&Graphic::setHEICFlag), slotOf(&Graphic::reserved),
         slotOf(&Graphic::setPixelFormat), slotOf(&Graphic::setResolution), slotOf(&Graphic::fetch),
         slotOf(&Graphic::createFromNative), slotOf(&Graphic::setUsage), slotOf(&Graphic::implType),
         slotOf(&Graphic::onAllocate)});
    EXPECT_EQ(slotOf(&VXBufferPool::fetchBuffer), -1);
}

// ---- Mapping ----------------------------------------------------------------------------------

class MappingTest : public BufferTest {
protected:
    void SetUp() override {
        ASSERT_EQ(ftruncate(mFd, 2 * mPage), 0);
        ASSERT_EQ(pwrite(mFd, "ab", 2, 0), 2);
    }
    void TearDown() override { close(mFd); }

    // Whether the page at `address` belongs to a mapping.
    bool isMapped(const uint8_t* address) const {
        return msync(const_cast<uint8_t*>(address), mPage, MS_ASYNC) == 0;
    }

    const size_t mPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const int mFd = memfd_create("mapping", MFD_CLOEXEC);
};

// Catches: an offset that is honoured after all, a private mapping, a mapping that outlives its object.
TEST_F(MappingTest, ShowsTheMemoryFromItsStartWhateverTheOffset) {
    {
        VXBuffer::Mapping mapping(mFd, 2 * mPage, mPage);
        EXPECT_EQ(mapping.size(), 2 * mPage);
        EXPECT_EQ(mapping.vaddr()[0], 'a');
        mapping.vaddr()[1] = 'c';
        EXPECT_EQ(mappings(), 1);
    }
    char written[2] = {};
    EXPECT_EQ(pread(mFd, written, 2, 0), 2);
    EXPECT_EQ(written[1], 'c');
    EXPECT_EQ(mappings(), 0);
}

// Catches: a failed mapping turned into null, or unmapped so that something else goes with it.
TEST_F(MappingTest, AFailedOneIsStoredAndDestroyedWithoutHarm) {
    for (const auto& [fd, size] : {std::pair<int, size_t>{-1, mPage}, {mFd, 0}}) {
        VXBuffer::Mapping mapping(fd, size, 0);
        EXPECT_EQ(mapping.vaddr(), MAP_FAILED);
        EXPECT_EQ(mapping.size(), size);
    }
    EXPECT_EQ(mappings(), 0);
}

// Catches: a length kept in 64 bits: the rest of a huge mapping stays, as callers are told.
TEST_F(MappingTest, CountsModulo4GiB) {
    const size_t huge = (size_t{1} << 32) + mPage;
    uint8_t* start = nullptr;
    {
        VXBuffer::Mapping mapping(mFd, huge, 0);
        start = mapping.vaddr();
        ASSERT_NE(start, MAP_FAILED);
        EXPECT_EQ(mapping.size(), mPage);
    }
    EXPECT_FALSE(isMapped(start));
    EXPECT_TRUE(isMapped(start + mPage));
    munmap(start + mPage, huge - mPage);  // left by the mapping, on purpose
}

// ---- Stash, with a scripted pool ---------------------------------------------------------------

// A buffer without memory, which counts what happens to it.
class FakeBuffer : public virtual VXBuffer {
public:
    struct Counts {
        std::atomic<int> made{0};
        std::atomic<int> destroyed{0};
        std::atomic<int> resets{0};
    };

    explicit FakeBuffer(std::shared_ptr<Counts> counts, Kind kind = LINEAR)
        : VXBuffer(kind, "fake"), mCounts(std::move(counts)) {
        ++mCounts->made;
    }
    ~FakeBuffer() override {
        ++mCounts->destroyed;
        if (onDestroy) onDestroy();
    }

    int fd() const override { return -1; }
    int32_t id() const override { return 0; }
    uint64_t uid() const override { return 0; }
    bool isSecure() const override { return false; }
    size_t capacity() const override { return 0; }
    bool isFenceValid() const override { return false; }
    bool isFenceReady() const override { return false; }
    VXError waitForFenceSignal() const override { return VX_OK; }
    size_t size() const override { return 0; }
    size_t offset() const override { return 0; }
    VXError setFilledRange(size_t, size_t) override { return VX_OK; }
    std::any nativeBuffer() override { return {}; }
    std::list<xc2::viewId_t> enumviews() const override { return {}; }
    std::shared_ptr<VXBuffer> getview(xc2::viewId_t) const override { return attached; }
    std::unique_ptr<Mapping> map() override { return nullptr; }
    void reset() override { ++mCounts->resets; }

    std::function<void()> onDestroy;
    std::shared_ptr<VXBuffer> attached;  // let go when this buffer is destroyed, after onDestroy

private:
    const std::shared_ptr<Counts> mCounts;
};

class ScriptedPool : public virtual VXBufferPool {
public:
    VXError setUsage(VXBufferUsage) override { return VX_OK; }
    const char* implType() const override { return "fake"; }
    VXBuffer* onAllocate() override { return fail ? nullptr : new FakeBuffer(counts); }

    // A buffer that could be had, or the end of the test.
    std::shared_ptr<VXBuffer> get() {
        std::shared_ptr<VXBuffer> buffer;
        EXPECT_EQ(fetchBuffer(&buffer), VX_OK);
        return buffer;
    }

    const std::shared_ptr<FakeBuffer::Counts> counts = std::make_shared<FakeBuffer::Counts>();
    bool fail = false;
};

class StashTest : public BufferTest {
protected:
    void expectCounts(int made, int destroyed, int resets) {
        EXPECT_EQ(pool->counts->made, made);
        EXPECT_EQ(pool->counts->destroyed, destroyed);
        EXPECT_EQ(pool->counts->resets, resets);
    }

    const std::shared_ptr<ScriptedPool> pool = std::make_shared<ScriptedPool>();
};

// Catches: kinds mixed up, a buffer that is neither of the two and passes for valid.
TEST_F(StashTest, KindAloneSaysWhatABufferIs) {
    struct Row {
        VXBuffer::Kind kind;
        bool linear, graphic, valid;
    };
    for (const Row& row :
         {Row{VXBuffer::LINEAR, true, false, true}, Row{VXBuffer::GRAPHIC, false, true, true},
          Row{VXBuffer::INVALID, false, false, false}}) {
        const FakeBuffer buffer(pool->counts, row.kind);
        EXPECT_EQ(buffer.isLinear(), row.linear) << row.kind;
        EXPECT_EQ(buffer.isGraphic(), row.graphic) << row.kind;
        EXPECT_EQ(buffer.isValid(), row.valid) << row.kind;
        EXPECT_EQ(buffer.allocatorName(), "fake");
    }
}

// Catches: recycling without a limit, at the start or after the limit was lifted again.
TEST_F(StashTest, WithoutALimitNothingIsKept) {
    pool->get().reset();
    expectCounts(1, 1, 0);
    pool->setMaxSlots(1);
    pool->get().reset();
    pool->setMaxSlots(SIZE_MAX);
    pool->get().reset();  // the one kept under the limit: handed out, then destroyed
    expectCounts(2, 2, 1);
}

// Catches: last in first out, a buffer handed out again without its reset(), kept ones not counted
// against the limit, an allocation tried although the limit is reached.
TEST_F(StashTest, RecyclesFirstInFirstOutUpToTheLimit) {
    pool->setMaxSlots(3);
    auto a = pool->get(), b = pool->get(), c = pool->get();
    const VXBuffer *first = b.get(), *second = c.get(), *third = a.get();
    std::shared_ptr<VXBuffer> none = a;
    EXPECT_EQ(pool->fetchBuffer(&none), VX_NO_FREE_SLOT);
    EXPECT_EQ(none, nullptr);
    EXPECT_TRUE(log.messages().empty());
    b.reset();
    c.reset();
    a.reset();
    expectCounts(3, 0, 0);
    a = pool->get();
    EXPECT_EQ(a.get(), first);
    b = pool->get();
    EXPECT_EQ(b.get(), second);
    c = pool->get();
    EXPECT_EQ(c.get(), third);
    expectCounts(3, 0, 3);
}

// Catches: the released buffer counted against the limit: with a limit lowered to 1 and three out, the
// first finds two others and goes, the second one and the third one are kept.
TEST_F(StashTest, ALoweredLimitKeepsOneMoreThanItSays) {
    auto a = pool->get(), b = pool->get(), c = pool->get();
    pool->setMaxSlots(1);
    a.reset();
    expectCounts(3, 1, 0);
    b.reset();
    c.reset();
    expectCounts(3, 1, 0);
    pool->setMaxSlots(0);
    pool->get().reset();  // kept ones are handed out under any limit
    std::shared_ptr<VXBuffer> none;
    expectCounts(3, 2, 1);
    pool->reset();
    EXPECT_EQ(pool->fetchBuffer(&none), VX_NO_FREE_SLOT);
    expectCounts(3, 3, 1);
}

// Catches: a reset() that destroys what holders still use, or a buffer of the old shape that comes
// back after it.
TEST_F(StashTest, ResetDestroysTheKeptAndForgetsTheRest) {
    pool->setMaxSlots(2);
    auto held = pool->get();
    pool->get().reset();
    pool->reset();
    expectCounts(2, 1, 0);
    auto a = pool->get(), b = pool->get();  // the forgotten one takes no slot
    held.reset();
    expectCounts(4, 2, 0);
}

// Catches: a release through a dead stash, and a buffer that is destroyed by one.
TEST_F(StashTest, ABufferThatOutlivesItsPoolIsLeftAlone) {
    VXBuffer* leftAlone = new FakeBuffer(pool->counts);
    auto stash = std::make_shared<VXBufferPool::Stash>();
    auto held = stash->track(leftAlone);
    stash.reset();
    held.reset();
    EXPECT_EQ(pool->counts->destroyed, 0);
    delete leftAlone;  // nobody else does, on purpose
}

// Catches: an allocation that failed and is tracked or returned, or that uses up a slot.
TEST_F(StashTest, AFailedAllocationLeavesNothingBehind) {
    pool->setMaxSlots(1);
    pool->fail = true;
    std::shared_ptr<VXBuffer> buffer = std::make_shared<FakeBuffer>(pool->counts);
    EXPECT_EQ(pool->fetchBuffer(&buffer), VX_NO_MEMORY);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(log.count("!newBuffer : Line# "), 1);
    pool->fail = false;
    pool->get();
}

// Catches: a null pointer followed, or refused under another name or code than callers know.
TEST_F(StashTest, NullPointersAreGuardFailures) {
    auto stash = std::make_shared<VXBufferPool::Stash>();
    EXPECT_EQ(pool->fetchBuffer(nullptr), VX_BAD_VALUE);
    EXPECT_EQ(log.count("!buf : Line# "), 1);
    EXPECT_EQ(stash->getFreeIfAvailable(nullptr), VX_BAD_VALUE);
    EXPECT_EQ(stash->reuseOrFree(nullptr), VX_BAD_VALUE);
    EXPECT_EQ(stash->track(nullptr), nullptr);
    EXPECT_EQ(log.count("buf == nullptr : Line# "), 3);
    for (const auto& message : log.messages()) {
        EXPECT_EQ(message.priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(message.tag, kTag);
    }
}

// Catches: the report's two bounds put right: the set grows to 65, the report says "too many" from 64.
TEST_F(StashTest, ReportsHowManyDifferentBuffersThereWere) {
    for (const auto& [buffers, text] :
         {std::pair<int, const char*>{0, "Allocated 0 Unique buffers"},
          {63, "Allocated 63 Unique buffers"},
          {64, "Allocated too many Unique buffers"},
          {70, "Allocated too many Unique buffers"}}) {
        {
            std::vector<std::shared_ptr<VXBuffer>> held;
            for (int i = 0; i < buffers; ++i) held.push_back(pool->get());
            log.clear();
            pool->reset();
            EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag, text), 1) << buffers;
        }
        log.clear();
        gVXLogLevel = 0x1f & ~VX_LOG_DEBUG;
        pool->reset();
        EXPECT_TRUE(log.messages().empty());
        gVXLogLevel = 0x1f;
    }
}

// Catches: a stash on the stack whose buffers would come back to nobody.
TEST_F(StashTest, WithoutASharedOwnerTrackingIsFatal) {
    FakeBuffer buffer(pool->counts);
    VXBufferPool::Stash stash;
    EXPECT_DEATH(stash.track(&buffer), "");
}

// Catches: buffers destroyed under the stash's lock: two pools that are reset at once, each with a kept
// buffer that holds one of the other's, then wait for each other for ever.
TEST_F(StashTest, ReleasesInsideAnotherPoolsResetDoNotLockUp) {
    ScriptedPool pools[2];
    Tally tally;
    std::shared_ptr<VXBuffer> kept[2], held[2];
    for (int i = 0; i < 2; ++i) {
        pools[i].setMaxSlots(4);
        kept[i] = pools[i].get();
        held[i] = pools[i].get();
    }
    for (int i = 0; i < 2; ++i) {
        auto* buffer = dynamic_cast<FakeBuffer*>(kept[i].get());
        buffer->attached = std::move(held[1 - i]);
        buffer->onDestroy = [&tally] {
            tally.hit("in a reset");
            EXPECT_TRUE(tally.waitFor("in a reset", 2));
        };
        kept[i].reset();
    }
    std::thread other([&] { pools[1].reset(); });
    pools[0].reset();
    other.join();
    for (auto& each : pools) {
        each.reset();
        EXPECT_EQ(each.counts->destroyed, 2);
    }
}

// ---- Contract of all back-ends ------------------------------------------------------------------

struct Form {
    const char* backEnd;
    bool graphic;
};
std::string nameOf(const Form& form) {
    return std::string(form.backEnd) + (form.graphic ? "Graphic" : "Linear");
}
void PrintTo(const Form& form, std::ostream* out) {
    *out << nameOf(form);
}
constexpr Form kForms[] = {
    {"dmabuf", false}, {"dmabuf", true}, {"xcodec2", false}, {"xcodec2", true}};

// A pool of either back-end and kind behind one face. Shape 0 is a small buffer, shape 1 a larger one.
class Subject {
public:
    explicit Subject(const Form& form) {
        if (form.graphic) {
            mGraphic = VXGraphicBufferPool::Create(form.backEnd, DEFAULT);
            mPool = mGraphic.get();
        } else {
            mLinear = VXLinearBufferPool::Create(form.backEnd, DEFAULT);
            mPool = mLinear.get();
        }
        setShape(0);
    }

    VXBufferPool* operator->() { return mPool; }

    void setShape(uint32_t shape) {
        if (mLinear != nullptr) {
            EXPECT_EQ(mLinear->setSize(5000 * (shape + 1)), VX_OK);
        } else {
            EXPECT_EQ(mGraphic->setPixelFormat(0x36), VX_OK);
            EXPECT_EQ(mGraphic->setResolution(64, 32 * (shape + 1)), VX_OK);
        }
    }
    static size_t capacity(const Form& form, uint32_t shape) {
        return form.graphic ? 64 * 32 * 3 * (shape + 1) / 4096 * 4096 + (shape == 0 ? 4096 : 0)
                            : 5000 * (shape + 1);
    }

    VXError fetch(std::shared_ptr<VXBuffer>* buffer) {
        if (mLinear != nullptr) return mLinear->fetch(buffer);
        auto picture = std::dynamic_pointer_cast<VXGraphicBuffer>(*buffer);
        const VXError status = mGraphic->fetch(&picture);
        *buffer = picture;
        return status;
    }
    VXError fetchToNull() {
        return mLinear != nullptr ? mLinear->fetch(nullptr) : mGraphic->fetch(nullptr);
    }
    std::shared_ptr<VXBuffer> get() {
        std::shared_ptr<VXBuffer> buffer;
        EXPECT_EQ(fetch(&buffer), VX_OK);
        return buffer;
    }

    void drop() {
        mLinear.reset();
        mGraphic.reset();
    }

private:
    std::shared_ptr<VXLinearBufferPool> mLinear;
    std::shared_ptr<VXGraphicBufferPool> mGraphic;
    VXBufferPool* mPool = nullptr;
};

class Contract : public BufferTest, public ::testing::WithParamInterface<Form> {
protected:
    Subject pool{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(AllBackEnds, Contract, ::testing::ValuesIn(kForms),
                         [](const auto& form) { return nameOf(form.param); });

// Catches: buffers that do not know their back-end or kind, sizes of a wrong shape, memory that is
// shorter than it says.
TEST_P(Contract, AFreshBufferIsWhatThePoolWasAskedFor) {
    EXPECT_STREQ(pool->implType(), GetParam().backEnd);
    for (uint32_t shape : {0, 1}) {
        pool.setShape(shape);
        const auto buffer = pool.get();
        EXPECT_EQ(buffer->allocatorName(), GetParam().backEnd);
        EXPECT_EQ(buffer->isGraphic(), GetParam().graphic);
        EXPECT_EQ(buffer->isLinear(), !GetParam().graphic);
        EXPECT_TRUE(buffer->isValid());
        EXPECT_FALSE(buffer->isSecure());
        EXPECT_EQ(buffer->capacity(), Subject::capacity(GetParam(), shape));
        EXPECT_EQ(buffer->offset(), 0u);
        struct stat status = {};
        ASSERT_EQ(fstat(buffer->fd(), &status), 0);
        EXPECT_GE(static_cast<size_t>(status.st_size), buffer->capacity());
        EXPECT_TRUE(buffer->enumviews().empty());
        EXPECT_EQ(buffer->getview(0), nullptr);
        EXPECT_FALSE(buffer->isFenceValid());
        EXPECT_FALSE(buffer->isFenceReady());
        EXPECT_EQ(buffer->waitForFenceSignal(), VX_OK);
    }
}

// Catches: mappings that are private, too short or not the same memory; fresh memory that is not zero.
TEST_P(Contract, MappingsShowTheWholeMemory) {
    const auto buffer = pool.get();
    const auto one = buffer->map();
    const auto other = buffer->map();
    ASSERT_EQ(one->size(), buffer->capacity());
    const size_t last = one->size() - 1;
    EXPECT_EQ(one->vaddr()[0], 0);
    EXPECT_EQ(one->vaddr()[last], 0);
    one->vaddr()[0] = 1;
    one->vaddr()[last] = 2;
    EXPECT_EQ(other->vaddr()[0], 1);
    EXPECT_EQ(other->vaddr()[last], 2);
    EXPECT_EQ(mappings(), 2);
}

// Catches: a filled size that is lost, or that survives into the next hand-out.
TEST_P(Contract, TheFilledSizeLastsUntilTheNextHandOut) {
    pool->setMaxSlots(1);
    auto buffer = pool.get();
    EXPECT_EQ(buffer->setFilledRange(0, 1234), VX_OK);
    EXPECT_EQ(buffer->size(), 1234u);
    buffer.reset();
    buffer = pool.get();
    EXPECT_EQ(buffer->size(), 0u);
}

// Catches: live buffers that share an identity, a recycled one that gets a new identity.
TEST_P(Contract, TheIdentityBelongsToTheMemory) {
    pool->setMaxSlots(3);
    auto a = pool.get(), b = pool.get(), c = pool.get();
    const uint64_t uid = a->uid();
    EXPECT_EQ(std::set<uint64_t>({uid, b->uid(), c->uid(), 0}).size(), 4u);
    a.reset();
    EXPECT_EQ(pool.get()->uid(), uid);
}

// Catches: a back-end that does not come through the stash: buffers kept without a limit, allocations
// past the limit, other buffers than the kept ones.
TEST_P(Contract, TheLimitDecidesAboutRecycling) {
    pool.get().reset();
    EXPECT_EQ(memories(), 0);
    pool->setMaxSlots(2);
    auto a = pool.get(), b = pool.get();
    const VXBuffer *first = b.get(), *second = a.get();
    std::shared_ptr<VXBuffer> c = a;
    EXPECT_EQ(pool.fetch(&c), VX_NO_FREE_SLOT);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(memories(), 2);
    b.reset();
    a.reset();
    EXPECT_EQ(memories(), 2);
    a = pool.get();
    EXPECT_EQ(a.get(), first);
    b = pool.get();
    EXPECT_EQ(b.get(), second);
}

// Catches: kept buffers of the old shape handed out after a setting, holders' buffers taken away by it
// or kept when they come back.
TEST_P(Contract, ASettingEndsTheBuffersOfTheOldShape) {
    pool->setMaxSlots(4);
    auto held = pool.get();
    pool.get().reset();
    EXPECT_EQ(memories(), 2);
    pool.setShape(1);
    EXPECT_EQ(memories(), 1);
    held->map()->vaddr()[0] = 1;
    const auto fresh = pool.get();
    EXPECT_EQ(fresh->capacity(), Subject::capacity(GetParam(), 1));
    held.reset();
    EXPECT_EQ(memories(), 1);
}

// Catches: a buffer that touches its dead pool, or whose memory goes while it is held.
TEST_P(Contract, ABufferMayOutliveItsPool) {
    auto held = pool.get();
    pool.drop();
    held->map()->vaddr()[0] = 1;
    VXBuffer* leftAlone = held.get();
    held.reset();
    EXPECT_EQ(memories(), 1);
    delete leftAlone;  // nobody else does, on purpose
}

// Catches: a null output that is followed, or that takes a buffer with it.
TEST_P(Contract, ANullOutputIsRefused) {
    EXPECT_EQ(pool.fetchToNull(), VX_BAD_VALUE);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "buf == nullptr"), 0);
    EXPECT_EQ(log.count("!buf : Line# "), 1);
    EXPECT_EQ(memories(), 0);
}

// Catches: a failed allocation that yields a buffer, keeps a slot or leaves the pool unusable.
TEST_P(Contract, AFailedAllocationIsNoMemoryAndPasses) {
    pool->setMaxSlots(3);
    vexa_testing::failCall(vexa_testing::Call::HeapAlloc, 3, ENOMEM);
    auto a = pool.get(), b = pool.get();
    auto c = a;
    EXPECT_EQ(pool.fetch(&c), VX_NO_MEMORY);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(memories(), 2);
    EXPECT_EQ(pool.fetch(&c), VX_OK);
}

// Catches: the same when the process is out of descriptors.
TEST_P(Contract, RunningOutOfDescriptorsIsNoMemory) {
    // Once before: the undefined-behaviour sanitizer needs descriptors when it meets a class first.
    pool.get();
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(STDERR_FILENO);
    close(next);
    const rlimit full = {static_cast<rlim_t>(next), before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &full), 0);
    std::shared_ptr<VXBuffer> buffer;
    EXPECT_EQ(pool.fetch(&buffer), VX_NO_MEMORY);
    EXPECT_EQ(buffer, nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(pool.fetch(&buffer), VX_OK);
}

// Catches: a buffer handed out twice at a time, one lost or made past the limit, when fetches and
// releases run on four threads and most releases on another thread than the fetch.
TEST_P(Contract, FourThreadsShareALimitedPool) {
    constexpr int kThreads = 4;
    constexpr int kSlots = 4;  // one fewer than the threads and the mailbox could hold
    pool->setMaxSlots(kSlots);
    std::unordered_map<const VXBuffer*, std::atomic<bool>> taken;
    {
        std::vector<std::shared_ptr<VXBuffer>> all;
        for (int i = 0; i < kSlots; ++i) all.push_back(pool.get());
        for (const auto& buffer : all) taken[buffer.get()] = false;
    }
    std::mutex mailboxLock;
    std::shared_ptr<VXBuffer> mailbox;
    std::atomic<int> wrong{0};
    std::atomic<int> fetched{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int left = scaled(1000000) / kThreads; left > 0; --left) {
                std::shared_ptr<VXBuffer> buffer;
                const VXError status = pool.fetch(&buffer);
                if (status == VX_NO_FREE_SLOT) continue;
                const auto known = taken.find(buffer.get());
                if (status != VX_OK || known == taken.end() || known->second.exchange(true)) {
                    ++wrong;
                    continue;
                }
                ++fetched;
                buffer->setFilledRange(0, 1);  // a race when somebody else has it
                {
                    std::lock_guard<std::mutex> lock(mailboxLock);
                    buffer.swap(mailbox);
                }
                if (buffer != nullptr) taken.find(buffer.get())->second = false;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    mailbox.reset();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(fetched, 0);
    EXPECT_EQ(memories(), kSlots);
    pool->reset();
    EXPECT_EQ(memories(), 0);
}

// Catches: settings, resets and releases that meet: a buffer of the old shape that comes back, one
// destroyed twice or never.
TEST_P(Contract, ShapesChangeWhileBuffersAreOut) {
    pool->setMaxSlots(3);
    const int enough = scaled(2000);
    std::atomic<int> fetched{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> holders;
    for (int t = 0; t < 2; ++t) {
        holders.emplace_back([&] {
            std::shared_ptr<VXBuffer> buffer;
            while (!done) fetched += pool.fetch(&buffer) == VX_OK;
        });
    }
    for (int left = 1000000; left > 0 && fetched < enough; --left) pool.setShape(left % 2);
    EXPECT_GE(fetched, enough);
    pool.setShape(1);
    done = true;
    for (auto& holder : holders) holder.join();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pool.get()->capacity(), Subject::capacity(GetParam(), 1));
    }
    pool->reset();
    EXPECT_EQ(memories(), 0);
}

// ---- Pools by name ------------------------------------------------------------------------------

class CreateByName : public BufferTest {};

// Catches: names compared by prefix or without case, a null name followed.
TEST_F(CreateByName, OnlyExactNamesAreKnown) {
    for (const char* name : {"DMABUF", "dmabuf ", "dmabu", "xcodec", "xcodec22", ""}) {
        log.clear();
        EXPECT_EQ(VXLinearBufferPool::Create(name, DEFAULT), nullptr);
        EXPECT_EQ(VXGraphicBufferPool::Create(name, DEFAULT), nullptr);
        EXPECT_EQ(
            log.count(ANDROID_LOG_ERROR, kTag, "Unrecognized allocator type " + std::string(name)),
            2);
    }
    EXPECT_EQ(VXLinearBufferPool::Create(nullptr, DEFAULT), nullptr);
    EXPECT_EQ(VXGraphicBufferPool::Create(nullptr, DEFAULT), nullptr);
    EXPECT_EQ(log.count("poolImplType == nullptr : Line# "), 2);
}

// Catches: a usage that does not reach the one back-end, or that reaches the other.
TEST_F(CreateByName, TheUsageReachesTheCodec2PoolsOnly) {
    for (const Form& form : kForms) {
        for (const VXBufferUsage usage : {DEFAULT, CACHED, SECURE, MULTIVIEW}) {
            const bool secure = std::string(form.backEnd) == "xcodec2" && (usage & 2) != 0;
            if (form.graphic) {
                const auto pool = VXGraphicBufferPool::Create(form.backEnd, usage);
                ASSERT_EQ(pool->setPixelFormat(0x36), VX_OK);
                ASSERT_EQ(pool->setResolution(64, 64), VX_OK);
                std::shared_ptr<VXGraphicBuffer> buffer;
                ASSERT_EQ(pool->fetch(&buffer), VX_OK);
                EXPECT_EQ(buffer->isSecure(), secure) << usage;
                EXPECT_TRUE(buffer->enumviews().empty()) << usage;
            } else {
                const auto pool = VXLinearBufferPool::Create(form.backEnd, usage);
                ASSERT_EQ(pool->setSize(1), VX_OK);
                std::shared_ptr<VXBuffer> buffer;
                ASSERT_EQ(pool->fetch(&buffer), VX_OK);
                EXPECT_EQ(buffer->isSecure(), secure) << usage;
                EXPECT_TRUE(buffer->enumviews().empty()) << usage;
            }
        }
    }
}
