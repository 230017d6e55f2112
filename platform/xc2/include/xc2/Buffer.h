// <xc2/Buffer.h>: the codec library's buffer, one block of Codec 2.0 memory and what belongs to it.
#pragma once

#include <C2Buffer.h>
#include <xc2/Event.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>

#pragma GCC visibility push(default)
namespace xc2 {

typedef uint32_t viewId_t;

// XC2LinearBlock: the memory of a linear buffer. A plain value.
struct XC2LinearBlock {
    int fd;             // owned by the block
    int32_t id;         // running number in its pool
    uint32_t capacity;  // bytes, as all below
    uint32_t size;      // the filled range, empty at first
    uint32_t offset;
};

// XC2GraphicBlock: the memory of a picture. A plain value.
struct XC2GraphicBlock {
    int fd;             // owned by the block
    uint32_t capacity;  // bytes
    uint32_t offset;    // bytes
    uint32_t width;     // pixels
    uint32_t height;
    uint32_t stride;       // pixels
    uint32_t sliceHeight;  // rows
    uint32_t format;       // a Codec 2.0 pixel format
};

// XC2Buffer: a block of Codec 2.0 memory with the codec's notes about its contents.
//
// Life     made by a pool (<xc2/BufferPool.h>), held by shared pointer; may outlive the pool.
// Threads  none of its own: it belongs to one holder at a time.
// Owns     its block and, in a multi-view buffer, the buffers of its views, which have none.
class XC2Buffer {
public:
    enum Type : uint32_t {
        LINEAR = 1,
        GRAPHIC = 3,
    };

    XC2Buffer(std::shared_ptr<C2LinearBlock> block, int32_t id);
    XC2Buffer(std::shared_ptr<C2GraphicBlock> block, uint32_t format);
    ~XC2Buffer();
    XC2Buffer(const XC2Buffer&) = delete;
    XC2Buffer& operator=(const XC2Buffer&) = delete;

    Type type() const { return mType; }
    bool isLinear() const { return mType == LINEAR; }
    bool isGraphic() const { return mType == GRAPHIC; }
    uint64_t uniqueId() const { return mUniqueId; }  // not used twice in a process, never 0

    // The block of the buffer's own kind; the other one is all zero.
    const XC2LinearBlock& linearBlock() const { return mLinear; }
    const XC2GraphicBlock& graphicBlock() const { return mGraphic; }

    // Linear: the filled range, not compared with the capacity.
    XC2Status setRange(uint32_t offset, uint32_t size);

    // Graphic: the bytes of a compressed picture (0: not known), the picture inside the block, the
    // part of it that is shown. At first 0, the size of the block, and nothing.
    uint32_t compressedSize() const { return mCompressedSize; }
    XC2Status setCompressedSize(uint32_t size);
    uint32_t frameWidth() const { return mFrameWidth; }
    uint32_t frameHeight() const { return mFrameHeight; }
    XC2Status setFrameWidth(uint32_t width);
    XC2Status setFrameHeight(uint32_t height);
    const C2Rect& crop() const { return mCrop; }
    XC2Status setCrop(const C2Rect& crop);

    // Infos: numbers under a key of the codec.
    //   XC2_OK         written
    //   XC2_NOT_FOUND  no such info; `*value` is left as it is
    XC2Status getInfo(uint32_t key, uint32_t* value) const;
    void setInfo(uint32_t key, uint32_t value) { mInfos[key] = value; }

    // What must have happened before the memory may be touched; null when there is nothing.
    const std::shared_ptr<C2Fence>& fence() const { return mFence; }
    void setFence(std::shared_ptr<C2Fence> fence);

    // Views: further buffers of the same kind that travel with this one.
    bool hasAuxViews() const { return !mViews.empty(); }
    std::list<viewId_t> enumerateAuxViews() const;
    std::shared_ptr<XC2Buffer> getView(viewId_t id) const;  // null when there is none
    void addView(viewId_t id, std::shared_ptr<XC2Buffer> view);

private:
    XC2Buffer(Type type, std::shared_ptr<void> block);

    const Type mType;
    const uint64_t mUniqueId;
    const std::shared_ptr<void> mBlock;  // keeps the memory
    XC2LinearBlock mLinear = {};
    XC2GraphicBlock mGraphic = {};
    uint32_t mCompressedSize = 0;
    uint32_t mFrameWidth = 0;
    uint32_t mFrameHeight = 0;
    C2Rect mCrop;
    std::map<uint32_t, uint32_t> mInfos;
    std::shared_ptr<C2Fence> mFence;
    std::map<viewId_t, std::shared_ptr<XC2Buffer>> mViews;
};

}  // namespace xc2
#pragma GCC visibility pop
