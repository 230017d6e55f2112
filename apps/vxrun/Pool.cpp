#include "Pool.h"

#include "Failure.h"
#include "Trace.h"

namespace vxrun {

using namespace vexa;

namespace {

constexpr uint32_t kSurfaceFormat = 0x1;  // RGBA 8888, see Payload

void traceFree(const PoolRecord& record) {
    if (gTrace == nullptr) return;
    const uint64_t out = record.out;
    gTrace->counter("pool." + record.name, {{"free", record.slots - out}});
}

}  // namespace

// A buffer that is out. Its end, when the last holder drops it, gives the buffer back.
struct Pool::Lease {
    ~Lease() {
        pool->mRecord.gotBack();  // first: once it is back, the node may take it
        traceFree(pool->mRecord);
        held.reset();
        if (pool->mWanted.exchange(false)) pool->mOnFree();
    }

    std::shared_ptr<Pool> pool;
    std::shared_ptr<VXBuffer> held;
    std::shared_ptr<VXBuffer::Mapping> mapping;
};

// What the shared pointers to a buffer that is out have for a deleter.
struct Pool::Owner {
    void operator()(VXBuffer*) {
        other.reset();
        lease.reset();
    }

    std::shared_ptr<Lease> lease;
    std::shared_ptr<VXBuffer> other;  // the buffer itself where it is not the lease's
};

std::shared_ptr<VXBuffer> Pool::share(const std::shared_ptr<VXBuffer>& buffer,
                                      std::unique_ptr<VXBuffer> other) {
    VXBuffer* const raw = other.get();
    return {raw, Owner{std::get_deleter<Owner>(buffer)->lease, std::move(other)}};
}

PoolRecord* Pool::recordOf(const std::shared_ptr<VXBuffer>& buffer) {
    const auto* const owner = std::get_deleter<Owner>(buffer);
    return owner != nullptr ? &owner->lease->pool->mRecord : nullptr;
}

std::shared_ptr<VXBuffer::Mapping> Pool::mappingOf(const std::shared_ptr<VXBuffer>& buffer) {
    const auto* const owner = std::get_deleter<Owner>(buffer);
    return owner != nullptr ? owner->lease->mapping : buffer->map();
}

std::shared_ptr<Pool> Pool::make(const std::string& allocator, const PictureFormat& format,
                                 size_t slots, PoolRecord& record, std::function<void()> onFree) {
    std::shared_ptr<Pool> pool(new Pool(format, record, std::move(onFree)));
    bool good = false;
    if (format.isPicture()) {
        const auto pictures = VXGraphicBufferPool::Create(allocator.c_str(), DEFAULT);
        good = pictures != nullptr && pictures->setPixelFormat(kSurfaceFormat) == VX_OK &&
               pictures->setResolution(Payload::surfaceWidth(format),
                                       Payload::surfaceHeight(format)) == VX_OK;
        pool->mBuffers = pictures;
    } else {
        const auto blocks = VXLinearBufferPool::Create(allocator.c_str(), DEFAULT);
        good = blocks != nullptr && blocks->setSize(format.size()) == VX_OK;
        pool->mBuffers = blocks;
    }
    if (!good) {
        throw Failure("the allocator '" + allocator + "' makes no buffers for " + format.text());
    }
    pool->mBuffers->setMaxSlots(slots);
    return pool;
}

VXError Pool::fetch(std::shared_ptr<VXBuffer>* buffer) {
    VXError status = take(buffer);
    if (status != VX_NO_FREE_SLOT) return status;
    // The wish is stated first, then one more look: a buffer that came back in between told nobody.
    mWanted = true;
    status = take(buffer);
    if (status != VX_NO_FREE_SLOT) mWanted = false;
    return status;
}

VXError Pool::take(std::shared_ptr<VXBuffer>* buffer) {
    buffer->reset();
    std::shared_ptr<VXBuffer> taken;
    const VXError status =
        mBuffers->fetchBuffer(&taken);  // one thread fetches, so no lock is needed
    if (status != VX_OK) return status;
    taken->setFilledRange(0, mFormat.size());
    const auto [made, isNew] = mMade.try_emplace(taken->uid());
    if (isNew) made->second = taken->map();
    mRecord.took(isNew);
    traceFree(mRecord);

    VXBuffer* const raw = taken.get();
    const std::shared_ptr<Lease> lease(
        new Lease{shared_from_this(), std::move(taken), made->second});
    *buffer = std::shared_ptr<VXBuffer>(raw, Owner{lease, nullptr});
    return VX_OK;
}

}  // namespace vxrun
