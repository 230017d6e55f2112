#include <vxkit/Failure.h>
#include <vxkit/Pool.h>

namespace vxkit {

using namespace vexa;

// The right to a buffer that is out. Its end gives the buffer back.
struct Pool::Lease {
    ~Lease() {
        pool->mRecord.gotBack();  // first: once it is back, the node may fetch it
        pool->traceFree();
        buffer.reset();
        if (pool->mWanted.exchange(false)) pool->mOnFree();
    }

    std::shared_ptr<Pool> pool;
    std::shared_ptr<VXBuffer> buffer;
    std::shared_ptr<VXBuffer::Mapping> mapping;
};

PoolBuffer::PoolBuffer(std::shared_ptr<Pool::Lease> lease, std::shared_ptr<VXBuffer> buffer)
    : mLease(std::move(lease)), mBuffer(std::move(buffer)) {}

std::shared_ptr<PoolBuffer> PoolBuffer::with(const PoolBuffer& origin,
                                             std::unique_ptr<VXBuffer> other) {
    return std::make_shared<PoolBuffer>(origin.mLease, std::move(other));
}

PoolRecord& PoolBuffer::record() const {
    return mLease->pool->mRecord;
}

const std::shared_ptr<VXBuffer::Mapping>& PoolBuffer::mapping() const {
    return mLease->mapping;
}

std::shared_ptr<Pool> Pool::make(const std::string& allocator, const PictureFormat& format,
                                 size_t slots, PoolRecord& record, std::shared_ptr<Trace> trace,
                                 std::function<void()> onFree) {
    std::shared_ptr<Pool> pool(new Pool(format, record, std::move(trace), std::move(onFree)));
    bool good = false;
    if (format.isPicture()) {
        const auto pictures = VXGraphicBufferPool::Create(allocator.c_str(), DEFAULT);
        const uint32_t code = poolFormatOf(format.pixels);
        const bool isStored = code != kSurfaceFormat;
        const auto width = static_cast<uint32_t>(format.width);
        const auto height = static_cast<uint32_t>(format.height);
        good = pictures != nullptr && pictures->setPixelFormat(code) == VX_OK &&
               pictures->setResolution(isStored ? width : format.surfaceWidth(),
                                       isStored ? height : format.surfaceHeight()) == VX_OK;
        pool->mBuffers = pictures;
    } else {
        const auto blocks = VXLinearBufferPool::Create(allocator.c_str(), DEFAULT);
        good = blocks != nullptr && blocks->setSize(format.size()) == VX_OK;
        pool->mBuffers = blocks;
    }
    if (!good) {
        throw Failure("the allocator '" + allocator + "' makes no buffers for " +
                      format.description());
    }
    pool->mBuffers->setMaxSlots(slots);
    return pool;
}

VXError Pool::fetch(std::shared_ptr<PoolBuffer>* buffer) {
    VXError status = fetchNow(buffer);
    if (status != VX_NO_FREE_SLOT) return status;
    // The wish is recorded first, then one more try: a buffer that came back in between did not
    // call onFree.
    mWanted = true;
    status = fetchNow(buffer);
    if (status != VX_NO_FREE_SLOT) mWanted = false;
    return status;
}

VXError Pool::fetchNow(std::shared_ptr<PoolBuffer>* buffer) {
    buffer->reset();
    std::shared_ptr<VXBuffer> fetched;
    const VXError status =
        mBuffers->fetchBuffer(&fetched);  // one thread fetches, so no lock is needed
    if (status != VX_OK) return status;
    // A buffer that comes back still has the range that its last frame filled.
    fetched->setFilledRange(0, mFormat.size());
    const auto [made, isNew] = mMade.try_emplace(fetched->uid());
    if (isNew) made->second = fetched->map();
    mRecord.handedOut(isNew);
    traceFree();
    const std::shared_ptr<Lease> lease(new Lease{shared_from_this(), fetched, made->second});
    *buffer = std::make_shared<PoolBuffer>(lease, std::move(fetched));
    return VX_OK;
}

void Pool::traceFree() const {
    if (mTrace == nullptr) return;
    const uint64_t out = mRecord.out;
    mTrace->counter("pool." + mRecord.name, {{"free", mRecord.slots - out}});
}

}  // namespace vxkit
