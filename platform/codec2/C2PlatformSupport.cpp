#include <BufferAllocator/BufferAllocator.h>
#include <C2PlatformSupport.h>
#include <unistd.h>
#include <vexa_testing/Faults.h>
#include <xc2/Platform.h>

#include <atomic>
#include <utility>

// ---- Blocks -----------------------------------------------------------------------------------

namespace {

std::atomic<int> sLiveBlocks{0};
std::atomic<uint64_t> sLastFetchUsage{0};

// Numbers behind the descriptor of a linear handle, as on a device: the size in two halves and a
// mark of the kind of handle.
constexpr int kLinearInts = 3;
constexpr int kLinearMagic = 0xc210000;

// A handle that owns `fd`, or null when `fd` is negative, with room for `numInts` numbers.
std::shared_ptr<C2Handle> ownDescriptor(int fd, int numInts) {
    if (fd < 0) return nullptr;
    C2Handle* handle = native_handle_create(1, numInts);
    if (handle == nullptr) {
        close(fd);
        return nullptr;
    }
    handle->data[0] = fd;
    ++sLiveBlocks;
    return std::shared_ptr<C2Handle>(handle, [](C2Handle* last) {
        native_handle_close(last);
        native_handle_delete(last);
        --sLiveBlocks;
    });
}

bool processorTouches(C2MemoryUsage usage) {
    return (usage.expected & (C2MemoryUsage::CPU_READ | C2MemoryUsage::CPU_WRITE)) != 0;
}

// What every fetch starts with: an error other than C2_OK ends it.
c2_status_t beginFetch(C2MemoryUsage usage) {
    sLastFetchUsage = usage.expected;
    return static_cast<c2_status_t>(vexa_testing::injectedError(vexa_testing::Call::FetchBlock));
}

}  // namespace

int vexa_testing::liveBlocks() {
    return sLiveBlocks;
}

uint64_t vexa_testing::lastFetchUsage() {
    return sLastFetchUsage;
}

C2Block1D::C2Block1D(std::shared_ptr<const C2Handle> handle, uint32_t capacity)
    : mHandle(std::move(handle)), mCapacity(capacity) {}
C2Block1D::~C2Block1D() = default;

C2Block2D::C2Block2D(std::shared_ptr<const C2Handle> handle, uint32_t width, uint32_t height)
    : mHandle(std::move(handle)), mWidth(width), mHeight(height) {}
C2Block2D::~C2Block2D() = default;

struct _C2BlockFactory {
    static std::shared_ptr<C2LinearBlock> linear(std::shared_ptr<const C2Handle> handle,
                                                 uint32_t capacity) {
        return std::shared_ptr<C2LinearBlock>(new C2LinearBlock(std::move(handle), capacity));
    }
    static std::shared_ptr<C2GraphicBlock> graphic(std::shared_ptr<const C2Handle> handle,
                                                   uint32_t width, uint32_t height) {
        return std::shared_ptr<C2GraphicBlock>(
            new C2GraphicBlock(std::move(handle), width, height));
    }
};

// ---- Pools ------------------------------------------------------------------------------------

C2Component::~C2Component() = default;

c2_status_t C2BlockPool::fetchLinearBlock(uint32_t, C2MemoryUsage,
                                          std::shared_ptr<C2LinearBlock>* block) {
    block->reset();
    return C2_OMITTED;
}

c2_status_t C2BlockPool::fetchCircularBlock(uint32_t, C2MemoryUsage,
                                            std::shared_ptr<C2CircularBlock>* block) {
    block->reset();
    return C2_OMITTED;
}

c2_status_t C2BlockPool::fetchGraphicBlock(uint32_t, uint32_t, uint32_t, C2MemoryUsage,
                                           std::shared_ptr<C2GraphicBlock>* block) {
    block->reset();
    return C2_OMITTED;
}

C2BlockPool::~C2BlockPool() = default;

namespace {

class BasicLinearPool : public C2BlockPool {
public:
    local_id_t getLocalId() const override { return BASIC_LINEAR; }
    C2Allocator::id_t getAllocatorId() const override { return 16; }

    c2_status_t fetchLinearBlock(uint32_t capacity, C2MemoryUsage usage,
                                 std::shared_ptr<C2LinearBlock>* block) override {
        block->reset();
        if (const c2_status_t error = beginFetch(usage)) return error;
        const int fd = mAllocator.AllocSystem(processorTouches(usage), capacity);
        const auto handle = ownDescriptor(fd, kLinearInts);
        if (handle == nullptr) return C2_NO_MEMORY;
        handle->data[1] = static_cast<int>(capacity);
        handle->data[2] = 0;
        handle->data[3] = kLinearMagic;
        *block = _C2BlockFactory::linear(handle, capacity);
        return C2_OK;
    }

private:
    BufferAllocator mAllocator;
};

class BasicGraphicPool : public C2BlockPool {
public:
    local_id_t getLocalId() const override { return BASIC_GRAPHIC; }
    C2Allocator::id_t getAllocatorId() const override { return 17; }

    c2_status_t fetchGraphicBlock(uint32_t width, uint32_t height, uint32_t format,
                                  C2MemoryUsage usage,
                                  std::shared_ptr<C2GraphicBlock>* block) override {
        block->reset();
        if (const c2_status_t error = beginFetch(usage)) return error;
        const auto layout = xc2::Platform::LyraBufferLayout::Of(format, width, height);
        if (layout.size == 0) return C2_BAD_VALUE;
        const int fd = mAllocator.AllocSystem(processorTouches(usage), layout.size);
        const auto handle = ownDescriptor(fd, 0);
        if (handle == nullptr) return C2_NO_MEMORY;
        *block = _C2BlockFactory::graphic(handle, width, height);
        return C2_OK;
    }

private:
    BufferAllocator mAllocator;
};

}  // namespace

c2_status_t android::GetCodec2BlockPool(C2BlockPool::local_id_t id,
                                        std::shared_ptr<const C2Component>,
                                        std::shared_ptr<C2BlockPool>* pool) {
    pool->reset();
    if (const int error = vexa_testing::injectedError(vexa_testing::Call::BlockPool)) {
        return error == vexa_testing::kNothing ? C2_OK : static_cast<c2_status_t>(error);
    }
    switch (id) {
        case C2BlockPool::BASIC_LINEAR:
            *pool = std::make_shared<BasicLinearPool>();
            return C2_OK;
        case C2BlockPool::BASIC_GRAPHIC:
            *pool = std::make_shared<BasicGraphicPool>();
            return C2_OK;
        default:
            return C2_NOT_FOUND;
    }
}
