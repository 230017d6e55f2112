// Pins what callers and other builds rely on: numbers, sizes, slot orders of virtual operations.
#include <VXBuffer_dmabuf.h>
#include <VXBuffer_xc2.h>
#include <VXGraph.h>
#include <gtest/gtest.h>

#include "support/VtableSlot.h"

using namespace vexa;

static_assert(VX_OK == 0 && VX_ERROR == -1 && VX_BAD_VALUE == -2 && VX_NO_FREE_SLOT == -3 &&
              VX_NO_FREE_BUFFER == -4 && VX_NOT_FOUND == 2 && VX_NO_MEMORY == 12 &&
              VX_INCOMPATIBLE == 13 && VX_BAD_ADDRESS == 14 && VX_ALREADY_EXISTS == 17 &&
              VX_NO_INIT == 19 && VX_INVALID_OPERATION == 95);
static_assert(DEFAULT == 0 && CACHED == 1 && SECURE == 2 && MULTIVIEW == 3);
static_assert(VXBuffer::LINEAR == 0 && VXBuffer::GRAPHIC == 1 && VXBuffer::INVALID == 2);
static_assert(sizeof(VXError) == 4 && sizeof(VexaError) == 4 && sizeof(VXBufferUsage) == 4 &&
              sizeof(VXBuffer::Kind) == 4 && sizeof(VXGraphicBuffer::Rect) == 16);
static_assert(std::is_base_of_v<xc2::EventHandler, VXNode::Handler>);
// Only its owner may destroy a listener: it has two slots, neither of them a destructor's.
static_assert(!std::is_destructible_v<VXGraph::Listener>);

// Names the protected hooks.
struct NodeHooks : VXNode {
    static void expectOrder() {
        using N = NodeHooks;
        expectSlots("VXNode", 2, &N::getPreferredAllocatorTypes, &N::onSetup, &N::onStart,
                    &N::onStop, &N::onProcess, &N::onDrain, &N::onBufferFilled, &N::onFlush,
                    &N::countAvailablePendingInputWorks, &N::getPendingInputWorks,
                    &N::erasePendingInputWorks, &N::signalComplete);
    }
};

template <class P>
void expectPictureSlots(const char* name) {
    expectSlots(name, 2, &P::fd, &P::id, &P::uid, &P::isSecure, &P::capacity, &P::isFenceValid,
                &P::isFenceReady, &P::waitForFenceSignal, &P::size, &P::offset, &P::setFilledRange,
                &P::width, &P::height, &P::sliceHeight, &P::stride, &P::frameWidth, &P::frameHeight,
                &P::setFrameWidth, &P::setFrameHeight, &P::pixelFormat, &P::crop, &P::setCrop,
                &P::nativeBuffer, &P::map, &P::reset, &P::enumviews, &P::getview);
}

// Catches: a virtual operation added, dropped or moved, which breaks binaries built against the old
// order. Slots 0 and 1 are the destructor where the first operation is at 2; where the destructor
// comes last, the first operation is at 0.
TEST(Layout, SlotOrders) {
    using E = xc2::EventHandler;
    expectSlots("EventHandler", 2, &E::postAsync, &E::postAsyncDelayed, &E::postSyncAndWait,
                &E::onEvent);
    expectSlots("VXPort", 2, &VXPort::connected);
    using D = VXInputPort::DelayObserver;
    expectSlots("DelayObserver", 0, &D::onInputDelayChanged, &D::onTotalDelayChanged);
    using O = VXOutputPort;
    expectSlots("VXOutputPort", 2, &O::connected, &O::onInputDelayChanged, &O::onTotalDelayChanged);
    NodeHooks::expectOrder();
    expectSlots("DownstreamWorkTracker", 2, &VXNode::DownstreamWorkTracker::onRelease);
    expectSlots("VXListener", 0, &VXListener::onComplete, &VXListener::onError);
    expectSlots("VXNodeBaseFactory", 0, &VXNodeBaseFactory::createNode);
    expectSlots("VXGraph::Listener", 0, &VXGraph::Listener::onGraphError,
                &VXGraph::Listener::onGraphComplete);
    expectSlots("VXGraph", 2, &VXGraph::onError, &VXGraph::onComplete);

    using B = VXBuffer;
    expectSlots("VXBuffer", 2, &B::isLinear, &B::isGraphic, &B::isValid, &B::fd, &B::id, &B::uid,
                &B::isSecure, &B::capacity, &B::isFenceValid, &B::isFenceReady,
                &B::waitForFenceSignal, &B::size, &B::offset, &B::setFilledRange, &B::nativeBuffer,
                &B::enumviews, &B::getview, &B::map, &B::reset);
    expectPictureSlots<VXGraphicBuffer>("VXGraphicBuffer");
    expectPictureSlots<VXGraphicBuffer_DMABUF>("VXGraphicBuffer_DMABUF");
    expectPictureSlots<VXGraphicBuffer_XC2>("VXGraphicBuffer_XC2");
    expectSlots("Mapping", 2, &B::Mapping::vaddr, &B::Mapping::size);
    expectSlots("VXFence", 2, &VXFence::waitForSignal, &VXFence::isValid, &VXFence::isReady,
                &VXFence::fd);
    using P = VXBufferPool;
    expectSlots("VXBufferPool", 2, &P::setUsage, &P::implType, &P::onAllocate);
    EXPECT_EQ(slotOf(&P::fetchBuffer), -1);
    expectSlots("Tracker", 2, &P::Stash::Tracker::onRelease);
    using L = VXLinearBufferPool;
    expectSlots("VXLinearBufferPool", 2, &L::setSize, &L::setAlignment, &L::fetch,
                &L::createFromNative, &L::setUsage, &L::implType, &L::onAllocate);
    using G = VXGraphicBufferPool;
    expectSlots("VXGraphicBufferPool", 2, &G::setHEICFlag, &G::reserved, &G::setPixelFormat,
                &G::setResolution, &G::fetch, &G::createFromNative, &G::setUsage, &G::implType,
                &G::onAllocate);
}

// Catches: a renumbered or renamed result, and a look-up that grows the table.
TEST(Layout, ResultNames) {
    const std::pair<uint32_t, const char*> rows[] = {
        {0x1001, "CORRUPT_DESCR"},    {0x1002, "NODE_NOT_FOUND"},  {0x1003, "GRAPH_BUILD_FAIL"},
        {0x1004, "NODE_FAIL_INIT"},   {0x1005, "NODE_FAIL_START"}, {0x1006, "NODE_FAIL_STOP"},
        {0x1007, "NODE_FAIL_ASYNC"},  {0x1008, "CRC_MISMATCH"},    {0x1009, "INFO_VALIDATION_FAIL"},
        {0x100A, "NODE_FAIL_CONFIG"}, {0x100B, "NODE_FAIL_FATAL"}, {0xFFFFF, "UNKNOWN_ERROR"},
    };
    EXPECT_EQ(gVexaErrorNames.size(), std::size(rows));
    for (const auto& [value, name] : rows)
        EXPECT_EQ(errorName(static_cast<VexaError>(value)), name);
    for (const uint32_t value : {0u, 0x1000u, 0x100Cu, 0xFFFFEu}) {
        EXPECT_EQ(errorName(static_cast<VexaError>(value)), "UNKNOWN_ERROR");
    }
    EXPECT_EQ(gVexaErrorNames.size(), std::size(rows));
}
