// codec/v4l2: decodes or encodes with a device of the kernel, by what comes in.
#include "V4l2Codec.h"

#include <vxkit/Decoder.h>

namespace vxrun {
namespace {

std::unique_ptr<vexa::VXNode> newCodec(NodeArguments arguments) {
    const auto& inputs = arguments.descriptor->inputPorts;
    const bool isEncoder = !inputs.empty() && inputs.front().format == "video/raw";
    return isEncoder ? newV4l2Encoder(std::move(arguments)) : newV4l2Decoder(std::move(arguments));
}

bool registerCodec() {
    auto configs = Decoder::commonConfigs();
    configs.insert(configs.begin(), {&kV4l2Device, &kV4l2Codec, &kV4l2Controls});
    registerNodeType({"codec/v4l2", "decodes or encodes with a V4L2 device", 1, 1,
                      std::move(configs), Decoder::commonEntries(), Decoder::kHasPool,
                      Decoder::checks, Decoder::leastFramesHeld, newCodec});
    return true;
}
const bool kRegistered = registerCodec();

}  // namespace
}  // namespace vxrun
