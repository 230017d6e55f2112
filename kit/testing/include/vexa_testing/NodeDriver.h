// NodeDriver: runs one node of vxkit in a test, without a graph. For tests only.
//
//     vexa_testing::NodeDriver decoder("acme/decoder", {{"threads", "2"}});
//     decoder.giveUnit(stream, 0, first);
//     decoder.giveUnit(stream, 1, second, NodeDriver::LAST);
//     while (const auto picture = decoder.receive()) check(vxkit::Frame(*picture));
//     check(decoder.stop() == vxkit::Verdict::Done);
#pragma once

#include <VXNode.h>
#include <vxkit/Evidence.h>
#include <vxkit/FrameView.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace vexa_testing {

// Stands for all other nodes: what it gives seems to come from upstream, and it receives as a node
// downstream. It takes works without limit, so what the node may have under way is limited by its
// pool, the config "slots".
//
// No wait is longer than the time limit. A frame that does not come is a vxkit::Failure that says
// what was seen. A hook that does not return can be ended by nothing else, so it ends the program,
// with a line on standard error.
//
// Life     constructor -> give...() and receive() -> stop(). What was received may outlive it.
// Threads  one at a time.
// Owns     the node, and the works that were not received.
class NodeDriver {
public:
    using Configs = std::unordered_map<std::string, std::string>;
    using Entry = vexa::VXNodeDescriptor::ConfigEntry;
    using Work = std::shared_ptr<vexa::VXSharedWork>;
    using Fill = std::function<void(const vxkit::FrameView& picture)>;
    // Of an input in its stream. After the LAST the node ends.
    enum Place { MIDDLE, LAST };
    // What has not been released. A plain value.
    struct Living {
        uint64_t inputs;   // works that were given
        uint64_t outputs;  // works that the node has sent
        uint64_t buffers;  // of inputs and of the node's pools
    };

    // Makes, sets up and starts a node of `type`, which has at most one port of each kind. Throws
    // Failure for an unknown type, and with the node's line when the node fails.
    explicit NodeDriver(const std::string& type, Configs configs = {},
                        std::vector<Entry> entries = {},
                        std::chrono::milliseconds limit = std::chrono::seconds(10));
    ~NodeDriver();
    NodeDriver(const NodeDriver&) = delete;
    NodeDriver& operator=(const NodeDriver&) = delete;

    // For the constructor: the command `key` at input `frame`, such as "flush" and "drain".
    static Entry command(const std::string& key, uint32_t frame, const std::string& value = "1");

    // Give the node an access unit, a picture that `fill` writes at once, and the frame of a work
    // that another driver has received. They never wait.
    void giveUnit(std::shared_ptr<vxkit::BitstreamInfo> stream, int64_t pts,
                  const std::vector<uint8_t>& bytes, Place place = MIDDLE);
    void givePicture(std::shared_ptr<vxkit::StreamInfo> stream, uint64_t timestamp,
                     const Fill& fill, Place place = MIDDLE);
    void give(const Work& work);

    // The next frame that the node sends, for vxkit::Frame and vxkit::AccessUnit. Null when no more
    // come: the node has sent its last frame, has reported completion, as sinks do, or has failed.
    Work receive();

    // Ends the node, wherever it is, and returns the verdict: Pass of a sink that checks, Done of
    // other nodes, else what went wrong. Works and buffers that are alive after that are a leak,
    // and a NodeFailFatal; those that were received have to be released before.
    vxkit::Verdict stop();

    Living living() const;
    // The lines that the node has printed, each with its line feed.
    std::string lines() const;
    const vxkit::Evidence& evidence() const;

private:
    struct State;
    class Listener;
    class OutputHandler;

    static void keep(const std::shared_ptr<State>& state);
    template <typename Action>
    void within(const char* step, Action action);
    void giveNew(std::shared_ptr<vxkit::StreamInfo> stream, std::shared_ptr<vxkit::UnitInfo> unit,
                 const vxkit::PictureFormat& format, uint64_t timestamp, const Fill& fill,
                 Place place);
    vexa::VXInputPort& input() const;
    void queue(vexa::VXWork* work);
    [[noreturn]] void refuse(const std::string& text) const;
    std::string counts() const;
    std::string seen() const;

    const std::string mType;
    const std::chrono::milliseconds mLimit;
    const std::shared_ptr<State> mState;  // shared by all that may outlive the driver
    std::shared_ptr<Listener> mListener;
    std::unique_ptr<vexa::VXNode> mNode;  // null once it has ended
    uint64_t mGiven = 0;
    uint64_t mReceived = 0;
};

}  // namespace vexa_testing
