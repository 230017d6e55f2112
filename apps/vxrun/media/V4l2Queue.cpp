#include "V4l2Queue.h"

namespace vxrun {

void V4l2Queue::request(unsigned count) {
    if (mCount > 0) mDevice.request(mSide, 0);
    mIndices.clear();
    mCount = count > 0 ? mDevice.request(mSide, count) : 0;
}

void V4l2Queue::stream(bool on) {
    mDevice.stream(mSide, on);
    mIsOn = on;
    if (!on) mInside.clear();
}

pollfd V4l2Queue::fencesOf(const vexa::VXBuffer& memory) const {
    return {memory.fd(), static_cast<short>(mSide == V4l2Device::OUTPUT ? POLLIN : POLLOUT), 0};
}

bool V4l2Queue::isReady(const vexa::VXBuffer& memory) const {
    if (memory.isFenceValid() && !memory.isFenceReady()) return false;
    pollfd fences = fencesOf(memory);
    return poll(&fences, 1, 0) == 1;
}

void V4l2Queue::queue(std::shared_ptr<vxkit::PoolBuffer> buffer, size_t bytes, uint64_t timestamp) {
    const vexa::VXBuffer& memory = buffer->buffer();
    auto index = mIndices.find(memory.uid());
    if (index == mIndices.end()) {
        // The next free one; when there is none, that of a buffer that the device does not hold.
        auto number = static_cast<unsigned>(mIndices.size());
        if (number >= mCount) {
            auto other = mIndices.begin();
            while (mInside.count(other->second) > 0) ++other;
            number = other->second;
            mIndices.erase(other);
        }
        index = mIndices.emplace(memory.uid(), number).first;
    }
    V4l2Device::Buffer queued;
    queued.index = index->second;
    queued.fd = memory.fd();
    queued.capacity = memory.capacity();
    queued.bytes = bytes;
    queued.timestamp = timestamp;
    mDevice.queue(mSide, queued);
    mInside[queued.index] = std::move(buffer);
}

std::optional<V4l2Queue::Done> V4l2Queue::dequeue() {
    if (!mIsOn) return std::nullopt;
    const auto result = mDevice.dequeue(mSide);
    if (!result) return std::nullopt;
    const auto held = mInside.find(result->index);
    if (held == mInside.end()) return std::nullopt;
    Done done = {*result, std::move(held->second)};
    mInside.erase(held);
    return done;
}

}  // namespace vxrun
