// V4l2Queue: one side of a V4L2 device, and the buffers of the graph that it holds.
#pragma once

#include "V4l2Device.h"

#include <vxkit/Pool.h>

#include <map>
#include <memory>
#include <optional>

#include <poll.h>

namespace vxrun {

// Life     the device outlives it.
// Threads  one at a time.
// Owns     shares of the buffers that the device holds.
class V4l2Queue {
public:
    struct Done {
        V4l2Device::Buffer result;
        std::shared_ptr<vxkit::PoolBuffer> buffer;
    };

    V4l2Queue(const V4l2Device& device, V4l2Device::Side side) : mDevice(device), mSide(side) {}

    bool isOn() const { return mIsOn; }
    bool isEmpty() const { return mInside.empty(); }
    bool isFull() const { return mInside.size() >= mCount; }

    // Makes room for `count` buffers in place of those before. The queue is off.
    void request(unsigned count);
    // Off: the device lets go of all buffers.
    void stream(bool on);
    // What to wait for before a buffer may be given to the device, which knows no fences: those that
    // the kernel keeps for its memory (dma-buf.rst, "Implicit Fence Poll Support"). Of writers where
    // the device reads, else of all.
    pollfd fencesOf(const vexa::VXBuffer& memory) const;
    // Whether these, and the buffer's own, have fired.
    bool isReady(const vexa::VXBuffer& memory) const;
    // Gives the device a buffer, of which `bytes` are filled.
    void queue(std::shared_ptr<vxkit::PoolBuffer> buffer, size_t bytes, uint64_t timestamp);
    // A buffer that the device is done with; empty when there is none.
    std::optional<Done> dequeue();

private:
    const V4l2Device& mDevice;
    const V4l2Device::Side mSide;
    unsigned mCount = 0;  // of buffers that the device accepts
    bool mIsOn = false;
    // By uid: a buffer keeps its index, since every change has it imported anew.
    std::map<uint64_t, unsigned> mIndices;
    std::map<unsigned, std::shared_ptr<vxkit::PoolBuffer>> mInside;
};

}  // namespace vxrun
