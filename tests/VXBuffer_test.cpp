#include <VXBuffer.h>
#include <VXBuffer_dmabuf.h>
#include <VXBuffer_xc2.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include "support/BufferTest.h"
#include "support/Scale.h"
#include "support/Tally.h"

using namespace vexa;

constexpr char kTag[] = "Vexa::VXBuffer";

// ---- Mapping ----------------------------------------------------------------------------------

// Catches: an offset that is honored after all, a private mapping, a mapping that outlives its
// object; a failed mapping turned into null, or unmapped so that something else goes with it; a
// length kept in 64 bits: the rest of a huge mapping stays, and callers know it.
TEST_F(BufferTest, AMappingShowsTheMemoryFromItsStartAndCountsModulo4GiB) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t huge = (size_t{1} << 32) + page;
    const int memory = memfd_create("mapping", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(memory, 2 * page) + pwrite(memory, "ab", 2, 0), 2);
    uint8_t* start = nullptr;
    {
        VXBuffer::Mapping mapping(memory, 2 * page, page), whole(memory, huge, 0);
        EXPECT_EQ(mapping.size(), 2 * page);
        EXPECT_EQ(mapping.vaddr()[0], 'a');
        mapping.vaddr()[1] = 'c';
        char written[2] = {};
        EXPECT_EQ(pread(memory, written, 2, 0), 2);
        EXPECT_EQ(written[1], 'c');
        start = whole.vaddr();
        ASSERT_NE(start, MAP_FAILED);
        EXPECT_EQ(whole.size(), page);
        for (const auto& [fd, size] : {std::pair<int, size_t>{-1, page}, {memory, 0}}) {
            VXBuffer::Mapping failed(fd, size, 0);
            EXPECT_EQ(failed.vaddr(), MAP_FAILED);
            EXPECT_EQ(failed.size(), size);
        }
        EXPECT_EQ(mappings(), 2);
    }
    EXPECT_EQ(mappings(), 1);
    EXPECT_NE(msync(start, page, MS_ASYNC), 0);  // not mapped
    munmap(start + page, huge - page);           // left by the mapping, on purpose
    close(memory);
}

// ---- Stash, with a scripted pool ---------------------------------------------------------------

struct Counts {
    std::atomic<int> made{0}, destroyed{0}, resets{0};
    bool noMemory = false;

    void useMemory() const {
        if (noMemory) throw std::bad_alloc();
    }
};

// A buffer without memory, which counts what happens to it.
class FakeBuffer : public VXBuffer_XC2 {
public:
    explicit FakeBuffer(Counts& counts, Kind kind = LINEAR)
        : VXBuffer(kind, "fake"), VXBuffer_XC2(nullptr, false), mCounts(counts) {
        ++mCounts.made;
    }
    ~FakeBuffer() override {
        ++mCounts.destroyed;
        if (onDestroy) onDestroy();
    }
    void reset() override {
        mCounts.useMemory();
        ++mCounts.resets;
    }

    std::function<void()> onDestroy;
    std::shared_ptr<VXBuffer> attached;  // let go when this buffer is destroyed, after onDestroy

private:
    Counts& mCounts;
};

class ScriptedPool : public VXBufferPool {
public:
    explicit ScriptedPool(Counts& counts) : mCounts(counts) {}
    VXError setUsage(VXBufferUsage) override { return VX_OK; }
    const char* implType() const override { return "fake"; }
    VXBuffer* onAllocate() override {
        mCounts.useMemory();
        return fail ? nullptr : new FakeBuffer(mCounts);
    }

    std::shared_ptr<VXBuffer> get() {
        std::shared_ptr<VXBuffer> buffer;
        EXPECT_EQ(fetchBuffer(&buffer), VX_OK);
        return buffer;
    }

    bool fail = false;

private:
    Counts& mCounts;
};

class StashTest : public BufferTest {
protected:
    void expectCounts(int made, int destroyed, int resets) {
        EXPECT_EQ(counts.made, made);
        EXPECT_EQ(counts.destroyed, destroyed);
        EXPECT_EQ(counts.resets, resets);
    }
    // Expects a fetch to fail and to take away what the output held.
    void expectNone(VXError status) {
        auto buffer = std::shared_ptr<VXBuffer>(new FakeBuffer(unrelated));
        EXPECT_EQ(pool.fetchBuffer(&buffer), status);
        EXPECT_EQ(buffer, nullptr);
    }

    Counts counts, unrelated;
    ScriptedPool pool{counts};
};

// Catches: recycling without a limit, at the start or after the limit was lifted again; an
// allocation that failed and is tracked or returned, or that uses up a slot; the released buffer
// counted against the limit: with a limit lowered to 1 and three out, the first finds two others
// and goes, the second and the third are kept.
TEST_F(StashTest, TheLimitDecidesWhatIsKept) {
    pool.get();
    expectCounts(1, 1, 0);
    pool.setMaxSlots(1);
    pool.fail = true;
    expectNone(VX_NO_MEMORY);
    EXPECT_GUARD("!newBuffer");
    pool.fail = false;
    pool.get();
    pool.setMaxSlots(SIZE_MAX);
    pool.get();  // the one kept under the limit: handed out, then destroyed
    expectCounts(2, 2, 1);
    std::shared_ptr<VXBuffer> held[] = {pool.get(), pool.get(), pool.get()};
    pool.setMaxSlots(1);
    for (auto& buffer : held) {
        buffer.reset();
        expectCounts(5, 3, 1);
    }
    pool.setMaxSlots(0);
    pool.get();  // kept ones are handed out under any limit
    expectCounts(5, 4, 2);
    pool.reset();
    expectNone(VX_NO_FREE_SLOT);
}

// Catches: a null pointer followed, or refused under another name or code than callers know; a
// stash on the stack, which its buffers could not come back to; kinds mixed up, a buffer of neither
// that counts as valid.
TEST_F(StashTest, NullPointersAreGuardFailuresAndNoOwnerIsFatal) {
    for (const VXBuffer::Kind kind : {VXBuffer::LINEAR, VXBuffer::GRAPHIC, VXBuffer::INVALID}) {
        const FakeBuffer buffer(counts, kind);
        EXPECT_EQ(buffer.isLinear(), kind == 0);
        EXPECT_EQ(buffer.isGraphic(), kind == 1);
        EXPECT_EQ(buffer.isValid(), kind < 2);
    }
    EXPECT_EQ(pool.fetchBuffer(nullptr), VX_BAD_VALUE);
    EXPECT_GUARD("!buf");
    VXBufferPool::Stash stash;
    EXPECT_EQ(stash.getFreeIfAvailable(nullptr), VX_BAD_VALUE);
    EXPECT_EQ(stash.reuseOrFree(nullptr), VX_BAD_VALUE);
    EXPECT_EQ(stash.track(nullptr), nullptr);
    EXPECT_EQ(log.count("buf == nullptr : Line# "), 3);
    for (const auto& message : log.messages()) {
        EXPECT_EQ(message.priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(message.tag, kTag);
    }
    FakeBuffer buffer(counts);
    EXPECT_DEATH(stash.track(&buffer), "");
}

// Catches: a fetch that finds no memory for itself, with a new buffer or a kept one, and passes the
// exception on to a program that has exceptions, while the pool's lock is held.
TEST_F(StashTest, AFetchWithoutMemoryForItselfEndsTheProcess) {
    // Called so that the compiler does not know it for noexcept: the library has to see to its own.
    VXError (VXBufferPool::*volatile fetch)(std::shared_ptr<VXBuffer>*) =
        &VXBufferPool::fetchBuffer;
    const auto fetchWithoutMemory = [&] {
        counts.noMemory = true;
        std::shared_ptr<VXBuffer> buffer;
        try {
            (pool.*fetch)(&buffer);
        } catch (const std::bad_alloc&) {
        }
    };
    EXPECT_EXIT(fetchWithoutMemory(), testing::KilledBySignal(SIGABRT), "");
    pool.setMaxSlots(1);
    pool.get();
    EXPECT_EXIT(fetchWithoutMemory(), testing::KilledBySignal(SIGABRT), "");
    pool.reset();
    expectCounts(1, 1, 0);
}

// Catches: the report's two bounds put right: the set grows to 65, the report says "too many" from
// 64.
TEST_F(StashTest, ReportsHowManyDifferentBuffersThereWere) {
    for (const auto& [buffers, text] :
         {std::pair<int, std::string>{0, "0"}, {63, "63"}, {64, "too many"}, {70, "too many"}}) {
        std::vector<std::shared_ptr<VXBuffer>> held;
        for (int i = 0; i < buffers; ++i) held.push_back(pool.get());
        log.clear();
        pool.reset();
        EXPECT_LOGGED(DEBUG, "Allocated " + text + " Unique buffers");
    }
    log.clear();
    gVXLogLevel = 0x1f & ~VX_LOG_DEBUG;
    pool.reset();
    EXPECT_TRUE(log.messages().empty());
}

// Catches: buffers destroyed under the stash's lock: two pools that are reset at once, each with a
// kept buffer that holds one of the other's, then wait for each other forever.
TEST_F(StashTest, ReleasesInsideAnotherPoolsResetDoNotLockUp) {
    ScriptedPool pools[2] = {ScriptedPool(counts), ScriptedPool(counts)};
    Tally tally;
    std::shared_ptr<VXBuffer> held[2];
    for (int i = 0; i < 2; ++i) {
        pools[i].setMaxSlots(4);
        held[i] = pools[i].get();
    }
    for (int i = 0; i < 2; ++i) {
        const auto kept = std::dynamic_pointer_cast<FakeBuffer>(pools[i].get());
        kept->attached = std::move(held[1 - i]);
        kept->onDestroy = [&tally] {
            tally.hit("in a reset");
            EXPECT_TRUE(tally.waitFor("in a reset", 2));
        };
    }
    std::thread other([&] { pools[1].reset(); });
    pools[0].reset();
    other.join();
    for (auto& each : pools) each.reset();
    expectCounts(4, 4, 0);
}

// ---- Contract of all back-ends ------------------------------------------------------------------

struct Form {
    const char* backEnd;
    bool graphic;
};

// A pool of either back-end and kind behind one face. Shape 0 is a small buffer, shape 1 a larger
// one.
class Subject {
public:
    explicit Subject(const Form& form, VXBufferUsage usage = DEFAULT) {
        if (form.graphic) {
            mGraphic = VXGraphicBufferPool::Create(form.backEnd, usage);
        } else {
            mLinear = VXLinearBufferPool::Create(form.backEnd, usage);
        }
        setShape(0);
    }

    VXBufferPool* operator->() {
        return mLinear != nullptr ? static_cast<VXBufferPool*>(mLinear.get()) : mGraphic.get();
    }

    void setShape(uint32_t shape) {
        if (mLinear != nullptr) {
            EXPECT_EQ(mLinear->setSize(capacity(shape)), VX_OK);
        } else {
            EXPECT_EQ(mGraphic->setPixelFormat(0x36), VX_OK);
            EXPECT_EQ(mGraphic->setResolution(128, 32 * (shape + 1)), VX_OK);
        }
    }
    size_t capacity(uint32_t shape) const {
        return (mLinear != nullptr ? 5000 : 128 * 32 * 3) * (shape + 1);
    }

    VXError fetch(std::shared_ptr<VXBuffer>* buffer) {
        if (mLinear != nullptr) return mLinear->fetch(buffer);
        if (buffer == nullptr) return mGraphic->fetch(nullptr);
        auto picture = std::dynamic_pointer_cast<VXGraphicBuffer>(*buffer);
        const VXError status = mGraphic->fetch(&picture);
        *buffer = picture;
        return status;
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
};

class Contract : public BufferTest, public ::testing::WithParamInterface<Form> {
protected:
    Subject pool{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(AllBackEnds, Contract,
                         ::testing::Values(Form{"dmabuf", false}, Form{"dmabuf", true},
                                           Form{"xcodec2", false}, Form{"xcodec2", true}),
                         [](const auto& form) {
                             return std::string(form.param.backEnd) +
                                    (form.param.graphic ? "Graphic" : "Linear");
                         });

// Catches: buffers that do not know their back-end or kind, sizes of a wrong shape, mappings that
// are private, too short or not the same memory, fresh memory that is not zero; a usage that does
// not reach the one back-end, or that reaches the other.
TEST_P(Contract, AFreshBufferIsWhatThePoolWasAskedFor) {
    for (const VXBufferUsage usage : {DEFAULT, CACHED, SECURE, MULTIVIEW}) {
        Subject pool(GetParam(), usage);
        EXPECT_STREQ(pool->implType(), GetParam().backEnd);
        const uint32_t shape = usage & 1;
        pool.setShape(shape);
        const auto buffer = pool.get();
        EXPECT_EQ(buffer->isSecure(), std::string(GetParam().backEnd) == "xcodec2" && (usage & 2));
        EXPECT_TRUE(buffer->enumviews().empty());
        EXPECT_EQ(buffer->allocatorName(), GetParam().backEnd);
        EXPECT_EQ(buffer->isGraphic(), GetParam().graphic);
        EXPECT_EQ(buffer->isLinear(), !GetParam().graphic);
        EXPECT_EQ(buffer->capacity(), pool.capacity(shape));
        EXPECT_EQ(buffer->offset(), 0u);
        EXPECT_EQ(buffer->getview(0), nullptr);
        EXPECT_FALSE(buffer->isFenceValid());
        EXPECT_FALSE(buffer->isFenceReady());
        EXPECT_EQ(buffer->waitForFenceSignal(), VX_OK);
        const auto one = buffer->map(), other = buffer->map();
        ASSERT_EQ(one->size(), buffer->capacity());
        for (const size_t place : {size_t{0}, buffer->capacity() - 1}) {
            EXPECT_EQ(one->vaddr()[place], 0);
            one->vaddr()[place] = 1;
            EXPECT_EQ(other->vaddr()[place], 1);
        }
    }
}

// Catches: a back-end that does not come through the stash: buffers kept without a limit,
// allocations past the limit, last in first out; an identity that is shared, or a filled size that
// survives.
TEST_P(Contract, TheLimitDecidesAboutRecycling) {
    pool.get();
    EXPECT_EQ(memories(), 0);
    pool->setMaxSlots(2);
    auto a = pool.get(), b = pool.get();
    const uint64_t first = b->uid(), second = a->uid();
    EXPECT_EQ(std::set<uint64_t>({first, second, 0}).size(), 3u);
    EXPECT_EQ(b->setFilledRange(0, 1234), VX_OK);
    EXPECT_EQ(b->size(), 1234u);
    auto c = a;
    EXPECT_EQ(pool.fetch(&c), VX_NO_FREE_SLOT);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(log.count(" : Line# "), 0);
    b.reset();
    a.reset();
    EXPECT_EQ(memories(), 2);
    a = pool.get();
    EXPECT_EQ(a->uid(), first);
    EXPECT_EQ(a->size(), 0u);
    EXPECT_EQ(pool.get()->uid(), second);
}

// Catches: kept buffers of the old shape handed out after a setting, holders' buffers taken away by
// it, counted or kept when they come back; a buffer that touches its dead pool.
TEST_P(Contract, HoldersOutliveSettingsAndPools) {
    pool->setMaxSlots(2);
    auto held = pool.get();
    pool.get();
    EXPECT_EQ(memories(), 2);
    pool.setShape(1);
    EXPECT_EQ(memories(), 1);
    auto fresh = pool.get();
    pool.get();  // the forgotten one takes no slot
    EXPECT_EQ(fresh->capacity(), pool.capacity(1));
    held->map()->vaddr()[0] = 1;
    held.reset();
    EXPECT_EQ(memories(), 2);
    pool.drop();
    fresh->map()->vaddr()[0] = 1;
    VXBuffer* leftAlone = fresh.get();
    fresh.reset();
    EXPECT_EQ(memories(), 1);
    delete leftAlone;  // the library does not, on purpose
}

// Catches: a null output that is followed; a failed allocation, injected or for want of
// descriptors, that yields a buffer, keeps a slot or leaves the pool unusable; descriptor 0 taken
// for a failure.
TEST_P(Contract, AFailedAllocationIsNoMemoryAndPasses) {
    EXPECT_EQ(pool.fetch(nullptr), VX_BAD_VALUE);
    EXPECT_GUARD("!buf");
    pool->setMaxSlots(3);
    vexa_testing::failCall(vexa_testing::Call::HeapAlloc, 3, ENOMEM);
    auto a = pool.get(), b = pool.get(), c = a;
    EXPECT_EQ(pool.fetch(&c), VX_NO_MEMORY);
    EXPECT_EQ(c, nullptr);
    {
        const NoDescriptors none;
        EXPECT_EQ(pool.fetch(&c), VX_NO_MEMORY);
    }
    EXPECT_EQ(memories(), 2);
    EXPECT_EQ(pool.fetch(&c), VX_OK);
    c.reset();
    pool->reset();
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_EQ(pool.fetch(&c), VX_OK);
    c->map()->vaddr()[0] = 1;
    c.reset();
    pool->reset();
    dup2(input, STDIN_FILENO);
    close(input);
}

// Catches: a buffer handed out twice at a time, one lost or made past the limit, when fetches and
// releases run on four threads and most releases on another thread than the fetch.
TEST_P(Contract, FourThreadsShareALimitedPool) {
    constexpr int kThreads = 4;
    constexpr int kSlots = 4;  // one fewer than the threads and the mailbox could hold
    pool->setMaxSlots(kSlots);
    std::mutex lock;  // over the four that follow
    std::set<const VXBuffer*> seen, out;
    std::shared_ptr<VXBuffer> mailbox;
    int wrong = 0;
    const auto work = [&] {
        for (int left = scaled(1000000) / kThreads; left > 0; --left) {
            std::shared_ptr<VXBuffer> buffer;
            const VXError status = pool.fetch(&buffer);
            if (status == VX_NO_FREE_SLOT) continue;
            if (status == VX_OK) buffer->setFilledRange(0, 1);  // a race when another thread has it
            std::lock_guard<std::mutex> locked(lock);
            wrong += status != VX_OK || !out.insert(buffer.get()).second;
            seen.insert(buffer.get());
            buffer.swap(mailbox);
            out.erase(buffer.get());
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(work);
    for (auto& thread : threads) thread.join();
    mailbox.reset();
    EXPECT_EQ(wrong, 0);
    EXPECT_FALSE(seen.empty());
    EXPECT_LE(memories(), kSlots);
    EXPECT_EQ(static_cast<size_t>(memories()), seen.size());
    pool->reset();
    EXPECT_EQ(memories(), 0);
}

// ---- Pools by name ------------------------------------------------------------------------------

// Catches: names compared by prefix or without case, a null name followed.
TEST_F(BufferTest, OnlyExactNamesAreKnown) {
    for (const char* name : {"DMABUF", "dmabuf ", "dmabu", "xcodec", "xcodec22", ""}) {
        log.clear();
        EXPECT_EQ(VXLinearBufferPool::Create(name, DEFAULT), nullptr);
        EXPECT_LOGGED(ERROR, "Unrecognized allocator type " + std::string(name));
        EXPECT_EQ(VXGraphicBufferPool::Create(name, DEFAULT), nullptr);
    }
    EXPECT_EQ(VXLinearBufferPool::Create(nullptr, DEFAULT), nullptr);
    EXPECT_EQ(VXGraphicBufferPool::Create(nullptr, DEFAULT), nullptr);
    EXPECT_EQ(log.count("poolImplType == nullptr : Line# "), 2);
}
