#include "PictureFences.h"

#include "Pool.h"

#include <VXBuffer_xc2.h>

namespace vxrun {

using namespace vexa;

static void complement(const std::shared_ptr<VXBuffer>& buffer, const StreamInfo& stream) {
    Payload(buffer, stream).forEachRow([](uint8_t* row, size_t bytes) {
        for (size_t i = 0; i < bytes; ++i) row[i] = static_cast<uint8_t>(~row[i]);
    });
}

PictureFences::~PictureFences() {
    for (Pending& pending : mPending) pending.fence.abandon();
}

std::shared_ptr<VXBuffer> PictureFences::add(const std::shared_ptr<VXBuffer>& buffer,
                                             const StreamInfo& stream) {
    const std::any native = buffer->nativeBuffer();
    const auto* const block = std::any_cast<VXNativeBufContainer<xc2::XC2Buffer>>(&native);
    if (block == nullptr || !buffer->isGraphic()) return buffer;
    complement(buffer, stream);
    const Pending& pending = mPending.emplace_back(Pending{buffer, stream, {}});
    // A buffer takes its fence when it is made, and the pool has made this one before.
    block->buffer->setFence(std::make_shared<C2Fence>(pending.fence.fence()));
    auto fenced = std::make_unique<VXGraphicBuffer_XC2>(block->buffer, buffer->isSecure());
    fenced->setFilledRange(buffer->offset(), buffer->size());
    return Pool::share(buffer, std::move(fenced));
}

void PictureFences::fireNext() {
    Pending pending = std::move(mPending.front());
    mPending.pop_front();
    complement(pending.buffer, pending.stream);
    pending.fence.fire();
}

}  // namespace vxrun
