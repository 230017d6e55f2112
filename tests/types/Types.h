// Two libraries that share nothing but libvxbase's headers, built as those of node authors may be:
// the writing one with hidden visibility, the reading one with everything visible.
#pragma once

#include <VXBuffer.h>
#include <VXGraph.h>

#include <string>

#define TYPES_EXPORT __attribute__((visibility("default")))

// Puts a value of each public type into `info`, under a key of its own.  [the writing library]
TYPES_EXPORT void writeTypes(vexa::VXEditableAuxInfo* info);
// The keys of the values that do not come back with their type.  [the reading library]
TYPES_EXPORT std::string unreadTypes(const vexa::VXAuxInfo& info);
// What errorName() gave while the static objects of this library were made.  [the reading library]
TYPES_EXPORT extern const std::string gEarlyName;

template <typename Visitor>
void forEachType(Visitor visit) {
    visit("VXError", vexa::VX_BAD_VALUE);
    visit("VexaError", vexa::CRC_MISMATCH);
    visit("VXBufferUsage", vexa::SECURE);
    visit("VXBuffer::Kind", vexa::VXBuffer::GRAPHIC);
    visit("VXPort::Direction", vexa::VXPort::OUTPUT);
    visit("VXPort::Format", vexa::VXPort::Format{"video/raw"});
    visit("VXNode::State", vexa::VXNode::RUNNING);
    visit("VXNodeDescriptor::ConfigEntry", vexa::VXNodeDescriptor::ConfigEntry());
    visit("VXFrameInfo", vexa::VXFrameInfo());
    visit("XC2Status", xc2::XC2_OK);
}
