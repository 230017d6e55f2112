// Tests acme/decoder alone, without a graph and without vxrun.
//
//   acme_test LIBRARY CLIP    CLIP: an HEVC byte stream of 25 pictures, 176x144
#include <vexa_testing/NodeDriver.h>
#include <vxkit/NodeLibrary.h>
#include <vxkit/Text.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

using namespace vxkit;
using vexa_testing::NodeDriver;
using Bytes = std::vector<uint8_t>;

// What decoding `bytes`, NAL unit by NAL unit, leads to: "25 176x144 yuv420p DONE".
static std::string decoded(const std::string& codec, const Bytes& bytes,
                           const std::string& threads) {
    const auto stream = std::make_shared<BitstreamInfo>();
    stream->codec = codec;
    stream->timeBase = {1, 25};
    NodeDriver decoder("acme/decoder", {{"threads", threads}});
    const Bytes startCode = {0, 0, 1};
    for (auto from = bytes.begin(), to = from; from != bytes.end(); from = to) {
        to = std::search(from + 1, bytes.end(), startCode.begin(), startCode.end());
        decoder.giveUnit(stream, 0, Bytes(from, to),
                         to == bytes.end() ? NodeDriver::LAST : NodeDriver::MIDDLE);
    }
    int count = 0;
    std::string format = "none";
    for (; const auto work = decoder.receive(); ++count) {
        format = Frame(*work).format().description();
    }
    const Verdict verdict = decoder.stop();
    return concat(count, " ", format, " ", verdictName(verdict));
}

static bool isRight(const std::string& actual, const std::string& expected) {
    if (actual != expected) std::printf("expected %s, got %s\n", expected.c_str(), actual.c_str());
    return actual == expected;
}

int main(int, char** arguments) {
    loadNodeLibrary(arguments[1]);
    std::ifstream file(arguments[2], std::ios::binary);
    const Bytes clip(std::istreambuf_iterator<char>(file), {});
    const Bytes garbage = {0, 0, 1, 0x42, 1, 1, 2, 3};
    const bool areRight[] = {
        isRight(decoded("hevc", clip, "0"), "25 176x144 yuv420p DONE"),
        isRight(decoded("hevc", clip, "4"), "25 176x144 yuv420p DONE"),
        isRight(decoded("hevc", garbage, "0"), "0 none INFO_VALIDATION_FAIL"),
        isRight(decoded("h264", clip, "0"), "0 none NOT_SUPPORTED"),
    };
    return std::count(std::begin(areRight), std::end(areRight), false) == 0 ? 0 : 1;
}
