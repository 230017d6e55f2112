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

// What is done when the last holder drops a buffer.
struct Pool::GiveBack {
    std::shared_ptr<Pool> pool;
    std::shared_ptr<VXBuffer> held;
    std::shared_ptr<VXBuffer::Mapping> mapping;

    void operator()(VXBuffer*) {
        pool->mRecord.gotBack();  // first: once it is back, the node may take it
        traceFree(pool->mRecord);
        held.reset();
        if (pool->mWanted.exchange(false)) pool->mOnFree();
    }
};

PoolRecord* Pool::recordOf(const std::shared_ptr<VXBuffer>& buffer) {
    const auto* const giveBack = std::get_deleter<GiveBack>(buffer);
    return giveBack != nullptr ? &giveBack->pool->mRecord : nullptr;
}

std::shared_ptr<VXBuffer::Mapping> Pool::mappingOf(const std::shared_ptr<VXBuffer>& buffer) {
    const auto* const giveBack = std::get_deleter<GiveBack>(buffer);
    return giveBack != nullptr ? giveBack->mapping : buffer->map();
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
    *buffer = std::shared_ptr<VXBuffer>(
        raw, GiveBack{shared_from_this(), std::move(taken), made->second});
    return VX_OK;
}

}  // namespace vxrun
