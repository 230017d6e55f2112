// Pins what callers and other builds rely on: numbers of codes, slot orders of virtual operations.
#include <VXGraph.h>
#include <gtest/gtest.h>

#include "support/VtableSlot.h"

using namespace vexa;

static_assert(VX_OK == 0 && VX_ERROR == -1 && VX_BAD_VALUE == -2 && VX_NO_FREE_SLOT == -3 &&
              VX_NO_FREE_BUFFER == -4 && VX_NOT_FOUND == 2 && VX_NO_MEMORY == 12 &&
              VX_INCOMPATIBLE == 13 && VX_BAD_ADDRESS == 14 && VX_ALREADY_EXISTS == 17 &&
              VX_NO_INIT == 19 && VX_INVALID_OPERATION == 95);
static_assert(sizeof(VXError) == 4 && sizeof(VexaError) == 4);
static_assert(std::is_base_of_v<xc2::EventHandler, VXNode::Handler>);
// Only its own hands may destroy a listener: it has two slots and no destructor among them.
static_assert(!std::is_destructible_v<VXGraph::Listener>);

// Names the protected hooks.
struct NodeHooks : VXNode {
    static void expectSlots() {
        EXPECT_EQ(slotOf(&NodeHooks::getPreferredAllocatorTypes), 2);
        EXPECT_EQ(slotOf(&NodeHooks::onSetup), 3);
        EXPECT_EQ(slotOf(&NodeHooks::onStart), 4);
        EXPECT_EQ(slotOf(&NodeHooks::onStop), 5);
        EXPECT_EQ(slotOf(&NodeHooks::onProcess), 6);
        EXPECT_EQ(slotOf(&NodeHooks::onDrain), 7);
        EXPECT_EQ(slotOf(&NodeHooks::onBufferFilled), 8);
        EXPECT_EQ(slotOf(&NodeHooks::onFlush), 9);
        EXPECT_EQ(slotOf(&NodeHooks::countAvailablePendingInputWorks), 10);
        EXPECT_EQ(slotOf(&NodeHooks::getPendingInputWorks), 11);
        EXPECT_EQ(slotOf(&NodeHooks::erasePendingInputWorks), 12);
        EXPECT_EQ(slotOf(&NodeHooks::signalComplete), 13);
    }
};

// Catches: a virtual operation added, dropped or moved, which breaks binaries built against the old
// order. Slots 0 and 1 are the destructor where the first operation is at 2; where the destructor
// comes last, the first operation is at 0.
TEST(Layout, SlotOrders) {
    NodeHooks::expectSlots();
    EXPECT_EQ(slotOf(&xc2::EventHandler::postAsync), 2);
    EXPECT_EQ(slotOf(&xc2::EventHandler::postAsyncDelayed), 3);
    EXPECT_EQ(slotOf(&xc2::EventHandler::postSyncAndWait), 4);
    EXPECT_EQ(slotOf(&xc2::EventHandler::onEvent), 5);
    EXPECT_EQ(slotOf(&VXPort::connected), 2);
    EXPECT_EQ(slotOf(&VXInputPort::DelayObserver::onInputDelayChanged), 0);
    EXPECT_EQ(slotOf(&VXInputPort::DelayObserver::onTotalDelayChanged), 1);
    EXPECT_EQ(slotOf(&VXOutputPort::connected), 2);
    EXPECT_EQ(slotOf(&VXOutputPort::onInputDelayChanged), 3);
    EXPECT_EQ(slotOf(&VXOutputPort::onTotalDelayChanged), 4);
    EXPECT_EQ(slotOf(&VXNode::DownstreamWorkTracker::onRelease), 2);
    EXPECT_EQ(slotOf(&VXListener::onComplete), 0);
    EXPECT_EQ(slotOf(&VXListener::onError), 1);
    EXPECT_EQ(slotOf(&VXNodeBaseFactory::createNode), 0);
    EXPECT_EQ(slotOf(&VXGraph::Listener::onGraphError), 0);
    EXPECT_EQ(slotOf(&VXGraph::Listener::onGraphComplete), 1);
    EXPECT_EQ(slotOf(&VXGraph::onError), 2);
    EXPECT_EQ(slotOf(&VXGraph::onComplete), 3);
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
