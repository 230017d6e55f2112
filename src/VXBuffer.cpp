#include <VXBuffer.h>
#include <VXBuffer_dmabuf.h>
#include <VXBuffer_xc2.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace vexa {

namespace {

constexpr char kLogTag[] = "Vexa::VXBuffer";

// The set of addresses grows while it holds at most this many, so to one more; the report gives up
// counting one earlier. The pair is meant to be off by one.
constexpr size_t kUniqueLimit = 64;

// Calls the factory of the back-end `name`.
template <typename Pool>
std::shared_ptr<Pool> createByName(const char* name, VXBufferUsage usage,
                                   std::shared_ptr<Pool> (*xc2)(VXBufferUsage),
                                   std::shared_ptr<Pool> (*dmabuf)(VXBufferUsage)) {
    const std::string_view wanted(name);
    if (wanted == "xcodec2") return xc2(usage);
    if (wanted == "dmabuf") return dmabuf(usage);
    VX_LOGE("Unrecognized allocator type %s", name);
    return nullptr;
}

}  // namespace

// ---- Buffers ----------------------------------------------------------------------------------

// The result of mmap is kept unchecked: a failed mapping shows by its address, and unmapping that
// address fails without harm. The offset is ignored on purpose: every mapping shows its buffer from
// the start.
VXBuffer::Mapping::Mapping(int fd, size_t size, size_t /*offset*/)
    : mVaddr(static_cast<uint8_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0))),
      mSize(static_cast<uint32_t>(size)) {}

VXBuffer::Mapping::~Mapping() {
    if (mVaddr != nullptr && mSize != 0) munmap(mVaddr, mSize);
}

uint8_t* VXBuffer::Mapping::vaddr() {
    return mVaddr;
}
uint32_t VXBuffer::Mapping::size() {
    return mSize;
}

VXBuffer::VXBuffer(Kind kind, const std::string& allocatorName)
    : mKind(kind), mAllocatorName(allocatorName) {}
VXBuffer::~VXBuffer() = default;

bool VXBuffer::isLinear() const {
    return mKind == LINEAR;
}
bool VXBuffer::isGraphic() const {
    return mKind == GRAPHIC;
}
bool VXBuffer::isValid() const {
    return mKind != INVALID;
}

VXGraphicBuffer::~VXGraphicBuffer() = default;

VXFence::~VXFence() = default;

// ---- VXBufferPool -----------------------------------------------------------------------------

VXBufferPool::VXBufferPool() : mStash(std::make_shared<Stash>()) {}
VXBufferPool::~VXBufferPool() = default;

void VXBufferPool::setMaxSlots(size_t maxSlots) {
    mStash->setMaxSlots(maxSlots);
}

VXError VXBufferPool::fetchBuffer(std::shared_ptr<VXBuffer>* buf) noexcept {
    VX_FAIL_IF(!buf, VX_BAD_VALUE);
    // A full pool is an answer, not a wait: only the caller knows whether a buffer will come back.
    // Nothing may come between this question and track(), or two fetches would pass the limit
    // together, so back-ends hold their lock over both.
    const VXError status = mStash->getFreeIfAvailable(buf);
    if (status != VX_NO_FREE_BUFFER) return status;
    VXBuffer* newBuffer = onAllocate();
    VX_FAIL_IF(!newBuffer, VX_NO_MEMORY);
    *buf = mStash->track(newBuffer);
    return VX_OK;
}

void VXBufferPool::reset() noexcept {
    mStash->reset();
}

// ---- Stash ------------------------------------------------------------------------------------

VXBufferPool::Stash::Tracker::Tracker(std::weak_ptr<Stash> stash) : mStash(std::move(stash)) {}
VXBufferPool::Stash::Tracker::~Tracker() = default;

void VXBufferPool::Stash::Tracker::onRelease(VXBuffer* buf) {
    // Left alone without its stash, on purpose.
    if (const auto stash = mStash.lock()) stash->reuseOrFree(buf);
}

VXBufferPool::Stash::~Stash() {
    reset();
}

void VXBufferPool::Stash::setMaxSlots(size_t maxSlots) {
    VXLocker lock(mLock);
    // Nothing is destroyed here: a lower limit takes effect as buffers are released.
    mMaxSlots = maxSlots;
}

VXError VXBufferPool::Stash::getFreeIfAvailable(std::shared_ptr<VXBuffer>* buf) noexcept {
    VX_FAIL_IF(buf == nullptr, VX_BAD_VALUE);
    buf->reset();  // before the lock: this may be the release of another buffer
    VXBuffer* kept = nullptr;
    {
        VXLocker lock(mLock);
        if (mFree.empty()) {
            const bool mayAllocate = mMaxSlots == SIZE_MAX || total() < mMaxSlots;
            return mayAllocate ? VX_NO_FREE_BUFFER : VX_NO_FREE_SLOT;
        }
        kept = mFree.front();
        mInUse.splice(mInUse.end(), mFree, mFree.begin());
    }
    // In use already, and so without the lock: a reset is the back-end's code.
    kept->reset();
    *buf = share(kept);
    return VX_OK;
}

std::shared_ptr<VXBuffer> VXBufferPool::Stash::track(VXBuffer* buf) noexcept {
    VX_FAIL_IF(buf == nullptr, nullptr);
    {
        VXLocker lock(mLock);
        mInUse.push_back(buf);
        // Only here: one that comes from the free list has been here since the last reset().
        if (mUnique.size() <= kUniqueLimit) mUnique.insert(reinterpret_cast<uint64_t>(buf));
    }
    return share(buf);
}

VXError VXBufferPool::Stash::reuseOrFree(VXBuffer* buf) noexcept {
    VX_FAIL_IF(buf == nullptr, VX_BAD_VALUE);
    {
        VXLocker lock(mLock);
        // A buffer handed out before a reset() is not found, for it may have an old shape, and is
        // destroyed like one without room. The search is linear, but few buffers are out at a time.
        const auto found = std::find(mInUse.begin(), mInUse.end(), buf);
        if (found != mInUse.end()) {
            std::list<VXBuffer*> released;
            released.splice(released.end(), mInUse, found);
            // The released buffer itself is not counted, and without a limit nothing is kept: both
            // on purpose.
            if (mMaxSlots != SIZE_MAX && total() <= mMaxSlots) {
                mFree.splice(mFree.end(), released);
                return VX_OK;
            }
        }
    }
    // Without the lock: a buffer's end may be the release of another pool's buffer.
    delete buf;
    return VX_OK;
}

void VXBufferPool::Stash::reset() noexcept {
    std::list<VXBuffer*> kept;
    size_t unique = 0;
    {
        VXLocker lock(mLock);
        kept.swap(mFree);
        mInUse.clear();
        unique = mUnique.size();
        mUnique.clear();
    }
    // Those in use belong to their holders, and are destroyed when they come back.
    for (VXBuffer* buffer : kept) delete buffer;
    VX_LOGD("Allocated %s Unique buffers",
            unique < kUniqueLimit ? std::to_string(unique).c_str() : "too many");
}

// The owner of a buffer in use, which brings it back here. Fatal, and meant to be, when no shared
// pointer holds this stash. Weak from the start: a strong reference between would be two more
// counts that the threads of one pool fight for.
std::shared_ptr<VXBuffer> VXBufferPool::Stash::share(VXBuffer* buf) {
    std::weak_ptr<Stash> self = weak_from_this();
    if (self.expired()) std::abort();
    return std::shared_ptr<VXBuffer>(buf, Tracker(std::move(self)));
}

size_t VXBufferPool::Stash::total() const {
    // Locked again inside the callers' lock, which is why the mutex is recursive.
    VXLocker lock(mLock);
    return mInUse.size() + mFree.size();
}

// ---- Pools by name ----------------------------------------------------------------------------

VXLinearBufferPool::~VXLinearBufferPool() = default;

std::shared_ptr<VXLinearBufferPool> VXLinearBufferPool::Create(const char* poolImplType,
                                                               VXBufferUsage usage) {
    VX_FAIL_IF(poolImplType == nullptr, nullptr);
    return createByName(poolImplType, usage, VXLinearBufferPoolCreate_xc2,
                        VXLinearBufferPoolCreate_dmabuf);
}

VXGraphicBufferPool::~VXGraphicBufferPool() = default;

std::shared_ptr<VXGraphicBufferPool> VXGraphicBufferPool::Create(const char* poolImplType,
                                                                 VXBufferUsage usage) {
    VX_FAIL_IF(poolImplType == nullptr, nullptr);
    return createByName(poolImplType, usage, VXGraphicBufferPoolCreate_xc2,
                        VXGraphicBufferPoolCreate_dmabuf);
}

VXError VXGraphicBufferPool::fetchGraphicBuffer(std::shared_ptr<VXGraphicBuffer>* buf) noexcept {
    VX_FAIL_IF(!buf, VX_BAD_VALUE);
    buf->reset();
    std::shared_ptr<VXBuffer> fetched;
    const VXError status = fetchBuffer(&fetched);
    // From a virtual base only a dynamic cast leads down.
    if (status == VX_OK) *buf = std::dynamic_pointer_cast<VXGraphicBuffer>(fetched);
    return status;
}

}  // namespace vexa
