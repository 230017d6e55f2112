// codec/v4l2: decodes or encodes with a device of the kernel, by what comes in.
#include "V4l2Codec.h"

#include "V4l2Device.h"

#include <vxkit/Decoder.h>

namespace vxrun {
namespace {

bool isEncoder(const vexa::VXNodeDescriptor& node) {
    return !node.inputPorts.empty() && node.inputPorts.front().format == "video/raw";
}

std::unique_ptr<vexa::VXNode> newCodec(NodeArguments arguments) {
    return isEncoder(*arguments.descriptor) ? newV4l2Encoder(std::move(arguments))
                                            : newV4l2Decoder(std::move(arguments));
}

// Without a codec it is that of the stream, which is not known yet.
void probe(const vexa::VXNodeDescriptor& node) {
    const std::string codec = kV4l2Codec.textIn(node);
    if (!codec.empty()) V4l2Device({!isEncoder(node), codec, kV4l2Device.textIn(node)});
}

bool registerCodec() {
    auto configs = Decoder::commonConfigs();
    configs.insert(configs.begin(), {&kV4l2Device, &kV4l2Codec, &kV4l2Controls});
    registerNodeType({"codec/v4l2", "decodes or encodes with a V4L2 device", 1, 1,
                      std::move(configs), Decoder::commonEntries(), Decoder::kHasPool,
                      Decoder::checks, Decoder::leastFramesHeld, probe, newCodec});
    return true;
}
const bool kRegistered = registerCodec();

}  // namespace
}  // namespace vxrun
