#include "TestedDecoder.h"

#include "Answer.h"
#include "GraphFile.h"
#include "Json.h"
#include "Program.h"
#include "Text.h"

#include <vxkit/NodeLibrary.h>
#include <vxkit/NodeType.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>

namespace vxrun {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using vexa::VXGraphInfo;

constexpr char kLibav[] = "libavcodec", kLibavType[] = "codec/decoder";
constexpr char kCommandType[] = "codec/command";
constexpr char kChecksumType[] = "sink/checksum";

// Where shipped descriptions are: beside the program, or where it is installed.
std::vector<fs::path> shippedFolders() {
    std::error_code none;
    const fs::path program = fs::read_symlink("/proc/self/exe", none).parent_path();
    return {program / "decoders", program.parent_path() / "share/vxrun/decoders"};
}

constexpr std::chrono::seconds kProbeLimit(10);

int millisecondsUntil(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

// What a program prints, on either output, and how it ended; at most some seconds long.
std::string outputOf(const Program::Setup& setup, int* status) {
    constexpr size_t kMost = 64 << 10;
    const auto deadline = Clock::now() + kProbeLimit;
    Program program(setup);
    std::string text;
    pollfd files[] = {
        {program.output(), POLLIN, 0}, {program.errors(), POLLIN, 0}, {program.end(), POLLIN, 0}};
    for (bool isOver = false; !isOver;) {
        isOver = program.status().has_value();
        for (pollfd& file : files) {
            char part[4096];
            ssize_t size = 0;
            while (file.fd != program.end() && (size = read(file.fd, part, sizeof part)) > 0) {
                if (text.size() < kMost) text.append(part, static_cast<size_t>(size));
            }
            if (file.fd != program.end() && size == 0) file.fd = -1;  // closed
        }
        if (!isOver && poll(files, 3, millisecondsUntil(deadline)) == 0) {
            throw Failure(
                concat(setup.command[0], ": no answer within ", kProbeLimit.count(), " s"));
        }
    }
    *status = *program.status();
    return text;
}

// The first line with a number like 1.2 or 1.2.3 in it; empty when there is none.
std::string versionIn(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        for (size_t i = 1; i + 1 < line.size(); ++i) {
            if (line[i] == '.' && std::isdigit(line[i - 1]) != 0 &&
                std::isdigit(line[i + 1]) != 0) {
                return printable(line);
            }
        }
    }
    return "";
}

vexa::VXNodeDescriptor& checksumSinkOf(const VXGraphInfo& graph) {
    for (const auto& node : graph.nodes) {
        if (node->type == kChecksumType) return *node;
    }
    throw Failure("the graph " + quote(graph.name) + " has no " + kChecksumType);
}

// The list of the input ports that the pictures go to which `sink` receives.
std::vector<std::string>& receiversOf(VXGraphInfo* graph, const vexa::VXNodeDescriptor& sink) {
    const std::string& input = sink.inputPorts.begin()->name;
    for (auto& [output, inputs] : graph->connections) {
        if (std::find(inputs.begin(), inputs.end(), input) != inputs.end()) return inputs;
    }
    throw Failure(quote(input) + " is not connected");
}

// Adds the nodes of `reference`, and one that compares the pictures of both graphs in place of its
// checksums.
void addReference(VXGraphInfo* graph, VXGraphInfo reference) {
    const std::string prefix = "reference_";
    auto& compare = addNode(graph, "sink/compare", "compare", nullptr, nullptr);
    compare.inputPorts = {{"compare.actual", kPictures}, {"compare.expected", kPictures}};
    receiversOf(graph, checksumSinkOf(*graph)).push_back("compare.actual");
    const vexa::VXNodeDescriptor& unused = checksumSinkOf(reference);
    const std::string unusedInput = unused.inputPorts.begin()->name;
    for (auto& node : reference.nodes) {
        if (node.get() == &unused) continue;
        node->name = prefix + node->name;
        for (auto* ports : {&node->inputPorts, &node->outputPorts}) {
            for (auto& port : *ports) port.name = prefix + port.name;
        }
        graph->nodes.push_back(std::move(node));
    }
    for (const auto& [output, inputs] : reference.connections) {
        for (const std::string& input : inputs) {
            graph->connections[prefix + output].push_back(input == unusedInput ? "compare.expected"
                                                                               : prefix + input);
        }
    }
}

}  // namespace

TestedDecoder::TestedDecoder() : mName(kLibav), mNodeType(kLibavType) {}

bool TestedDecoder::hasDefault() {
    return findNodeType(kLibavType) != nullptr;
}

TestedDecoder TestedDecoder::ofGraph(const std::string& path) {
    TestedDecoder decoder;
    decoder.mName = fs::path(path).stem();
    decoder.mNodeType.clear();
    decoder.mGraph = path;
    return decoder;
}

TestedDecoder TestedDecoder::find(const std::string& name) {
    TestedDecoder decoder;
    std::error_code none;
    if (name.size() > 5 && name.substr(name.size() - 5) == ".json") {
        decoder.read(name);
        return decoder;
    }
    if (name == kLibav && hasDefault()) return decoder;
    for (const fs::path& folder : shippedFolders()) {
        const fs::path file = folder / (name + ".json");
        if (name.find('/') == std::string::npos && fs::exists(file, none)) {
            decoder.read(file);
            return decoder;
        }
    }
    const NodeType* const type = findNodeType(name);
    if (type == nullptr || type->outputs != 1 || type->inputs > 1) {
        throw badOption("--decoder", concat("no decoder ", quote(name), "; a description ends in ",
                                            ".json, for the others see --list-decoders"));
    }
    decoder.mName = decoder.mNodeType = name;
    return decoder;
}

void TestedDecoder::read(const std::string& path) {
    const JsonDocument document(path, "decoder");
    const JsonValue& root = document.expectObject(
        document.root(), {"name", "help", "codecs", "environment", "probe", "nodes_from", "node",
                          "configs", "command", "graph"});
    const auto has = [&](const char* key) { return root.find(key) != nullptr; };
    const auto stringsOf = [&](const char* key) {
        return has(key) ? document.strings(*root.find(key)) : std::vector<std::string>();
    };
    const fs::path folder = fs::path(path).parent_path();
    mName = document.name(root, "name");
    mHelp = has("help") ? document.member(root, "help", JsonValue::STRING).text : "";
    mCodecs = stringsOf("codecs");
    mEnvironment = stringsOf("environment");
    mProbe = stringsOf("probe");
    for (const JsonValue& item : document.items(root, "nodes_from", JsonValue::ARRAY)) {
        const std::string file = document.expect(item, JsonValue::STRING).text;
        const bool isHere = file.find('/') != std::string::npos || fs::exists(folder / file);
        try {
            loadNodeLibrary(isHere ? (folder / file).string() : file);
        } catch (const Failure& failure) {
            document.fail(item, failure.what(), failure.verdict());
        }
    }
    if (has("node") + has("command") + has("graph") != 1) {
        document.fail(root, "expected one of 'node', 'command' and 'graph'");
    }
    mNodeType = has("command") ? kCommandType : has("node") ? document.name(root, "node") : "";
    if (has("graph")) mGraph = folder / document.name(root, "graph");
    if (has("node") && findNodeType(mNodeType) == nullptr) {
        document.fail(*root.find("node"), "unknown node type " + quote(mNodeType));
    }
    for (const JsonValue& item : document.items(root, "configs", JsonValue::OBJECT)) {
        mConfigs[item.key] = document.scalar(item);
    }
    if (has("command")) mConfigs["command"] = joinedWords(stringsOf("command"));
}

std::string TestedDecoder::probe() {
    if (mProbe.empty()) return "";
    try {
        int status = 0;
        const std::string text = outputOf({mProbe, mEnvironment, ""}, &status);
        if (!endText(status).empty()) return mProbe[0] + ": " + endText(status);
        mVersion = versionIn(text);
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

std::string TestedDecoder::probe(const VXGraphInfo& graph) {
    int status = 0;
    const std::string answer = answerOf(
        [&]() -> std::string {
            for (const auto& node : graph.nodes) {
                const NodeType* const type = findNodeType(node->type);
                try {
                    if (type != nullptr) type->probe(*node);
                } catch (const Failure& failure) {
                    return failure.what();
                }
            }
            return "";
        },
        kProbeLimit, &status);
    return status == 0 ? answer : "the probe: " + endText(status);
}

void TestedDecoder::setEnvironment() const {
    for (const std::string& text : mEnvironment) {
        const size_t equals = text.find('=');
        if (equals < text.size()) {
            setenv(text.substr(0, equals).c_str(), text.c_str() + equals + 1, 1);
        }
    }
}

std::string TestedDecoder::refusal(const std::string& codec) const {
    const bool isAny = codec.empty() || mCodecs.empty();
    if (isAny || std::find(mCodecs.begin(), mCodecs.end(), codec) != mCodecs.end()) return "";
    return mName + " does not decode " + codec;
}

VXGraphInfo TestedDecoder::graphFor(const DecodeOptions& options, Limits* limits) const {
    VXGraphInfo graph = decodingGraph(options, limits);
    if (!options.list.empty()) checksumSinkOf(graph).configs["expect"] = options.list;
    if (options.against == nullptr) return graph;
    DecodeOptions reference;
    reference.input = options.input;
    reference.format = options.format;
    addReference(&graph, options.against->decodingGraph(reference, nullptr));
    return graph;
}

VXGraphInfo TestedDecoder::decodingGraph(const DecodeOptions& options, Limits* limits) const {
    const bool anyFormat = options.format == "None" || options.format == "Unknown";
    const std::string format = anyFormat ? "" : options.format;
    if (!mGraph.empty()) {
        const std::string input = fs::absolute(options.input);
        return readGraphFile(mGraph, {{"{input}", input}, {"{format}", format}}, limits);
    }
    VXGraphInfo graph;
    graph.name = "decode";
    const NodeType* const type = findNodeType(mNodeType);
    const bool readsFiles = type != nullptr && type->inputs == 0;
    if (!readsFiles) {
        constexpr char kAnyFile[] = "source/bitstream", kIvfFile[] = "source/ivf";
        const bool readsAny = findNodeType(kAnyFile) != nullptr;  // not without libavformat
        addNode(&graph, readsAny ? kAnyFile : kIvfFile, "reader", nullptr, kUnits).configs["file"] =
            options.input;
        graph.connections["reader.out"] = {"decoder.in"};
    }
    auto& configs =
        addNode(&graph, mNodeType, "decoder", readsFiles ? nullptr : kUnits, kPictures).configs;
    configs = mConfigs;
    if (readsFiles) configs["file"] = options.input;
    if (!format.empty()) configs["format"] = format;
    // A codec chooses among the decoders of libavcodec; others find it in the stream.
    const bool takesCodec = type != nullptr && type->findConfig("codec") != nullptr;
    if (takesCodec && !options.codec.empty()) configs["codec"] = options.codec;
    auto& sinks = graph.connections["decoder.out"];
    if (!options.output.empty()) {
        addNode(&graph, "sink/file", "writer", kPictures, nullptr).configs["file"] = options.output;
        sinks.push_back("writer.in");
    }
    const bool printsMd5 = options.md5 || options.output.empty();
    if (printsMd5 || !options.list.empty() || options.against != nullptr) {
        auto& md5 = addNode(&graph, kChecksumType, "md5", kPictures, nullptr);
        if (printsMd5) md5.configs["print_md5"] = "true";
        sinks.push_back("md5.in");
    }
    return graph;
}

std::vector<TestedDecoder> TestedDecoder::shipped() {
    std::map<std::string, TestedDecoder> found;
    std::error_code none;
    for (const fs::path& folder : shippedFolders()) {
        for (const auto& entry : fs::directory_iterator(folder, none)) {
            if (entry.path().extension() != ".json") continue;
            TestedDecoder decoder;
            decoder.read(entry.path());
            found.emplace(decoder.mName, decoder);
        }
    }
    std::vector<TestedDecoder> all;
    all.reserve(found.size());
    for (auto& [name, decoder] : found) all.push_back(std::move(decoder));
    return all;
}

}  // namespace vxrun
