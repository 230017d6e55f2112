// V4l2Codec: the two halves of codec/v4l2.
#pragma once

#include "Vxkit.h"

#include <vxkit/NodeType.h>

namespace vxrun {

inline const TextKey kV4l2Device{
    "device", "its path, or a part of its driver's or card's name; default any that fits"};
inline const TextKey kV4l2Codec{"codec", "the codec; of a decoder default that of the stream"};
inline const WordsKey kV4l2Controls{
    "controls", "controls of the device, ID=VALUE, as the kernel's headers number them"};

std::unique_ptr<vexa::VXNode> newV4l2Decoder(NodeArguments arguments);
std::unique_ptr<vexa::VXNode> newV4l2Encoder(NodeArguments arguments);

}  // namespace vxrun
