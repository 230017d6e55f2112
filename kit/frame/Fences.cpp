#include <C2FenceSource.h>
#include <VXBuffer_xc2.h>
#include <vxkit/Fences.h>

namespace vxkit {

using namespace vexa;

static void complement(const PoolBuffer& buffer, const StreamInfo& stream) {
    FrameView(buffer, stream).forEachRow([](uint8_t* row, size_t bytes) {
        for (size_t i = 0; i < bytes; ++i) row[i] = static_cast<uint8_t>(~row[i]);
    });
}

// A picture that is not finished.
struct PictureFences::Pending {
    std::shared_ptr<PoolBuffer> buffer;
    StreamInfo stream;
    vexa_host::FenceSource fence;
};

PictureFences::PictureFences() = default;

PictureFences::~PictureFences() {
    for (const auto& pending : mPending) pending->fence.abandon();
}

std::shared_ptr<PoolBuffer> PictureFences::withFence(const std::shared_ptr<PoolBuffer>& buffer,
                                                     const StreamInfo& stream) {
    VXBuffer& plain = buffer->buffer();
    const std::any native = plain.nativeBuffer();
    const auto* const block = std::any_cast<VXNativeBufContainer<xc2::XC2Buffer>>(&native);
    if (block == nullptr || !plain.isGraphic()) return buffer;
    complement(*buffer, stream);
    const auto& pending =
        mPending.emplace_back(std::make_unique<Pending>(Pending{buffer, stream, {}}));
    // A buffer reads its fence when it is made, and the pool has made this one before.
    block->buffer->setFence(std::make_shared<C2Fence>(pending->fence.fence()));
    auto fenced = std::make_unique<VXGraphicBuffer_XC2>(block->buffer, plain.isSecure());
    fenced->setFilledRange(plain.offset(), plain.size());
    return PoolBuffer::with(*buffer, std::move(fenced));
}

void PictureFences::fireNext() {
    const auto pending = std::move(mPending.front());
    mPending.pop_front();
    complement(*pending->buffer, pending->stream);  // before the fence: a consumer may read at once
    pending->fence.fire();
}

}  // namespace vxkit
