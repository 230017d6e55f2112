// vxrun decode FILE: decodes a video file; prints the MD5 of all its pictures, or writes them.
#include "Command.h"
#include "TestedDecoder.h"
#include "Text.h"

#include <unistd.h>

#include <optional>

namespace vxrun {
namespace {

class DecodeCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const decode = app->add_subcommand(
            "decode", "Decodes a video file; prints the MD5 of all its pictures, or writes them");
        decode->fallthrough();
        addOption(decode, "IN FILE", &mDecode.input, "The file to decode")->required();
        addOption(decode, "-o,--output FILE", &mDecode.output, "The raw video to write");
        decode->add_flag("--md5", mDecode.md5, "Print the MD5; default without -o");
        addOption(decode, "--format FORMAT", &mDecode.format,
                  "The pixel format that the pictures must have; nothing is converted");
        addDecoderOptions(decode, &mDecoders);
        addOption(decode, "--codec CODEC", &mDecode.codec,
                  "A codec (h264, hevc, av1, ...) or a decoder");
        addOption(decode, "--list FILE", &mDecode.list,
                  "The checksum list that the pictures must match");
        addOption(decode, "--against DECODER", &mAgainst,
                  "A trusted decoder, named as for --decoder, whose pictures they must equal");
        addOption(decode, "--unsupported-exit CODE", &mUnsupportedExit,
                  "Exit code for what is not supported, default 69")
            ->check(CLI::Range(0, 255));
        showOptions(*app,
                    {"--nodes",   "--set",     "--dump-bad",    "--record",   "--force",
                     "--log",     "--timeout", "--stall",       "--progress", "--trace",
                     "--dot",     "--color",   "--stats",       "--html",     "--json",
                     "--junit",   "--bundle",  "--bundle-refs", "--min-fps",  "--max-latency-p99",
                     "--max-rss", "--quiet"},
                    decode);
        return decode;
    }

    int execute(const CommonOptions& options, Evidence* evidence) override {
        evidence->expectNoCheck();
        auto decoders = mDecoders.find();
        if (decoders.size() > 1) throw badOption("--decoder", "expected one");
        TestedDecoder& decoder = decoders.front();
        for (const std::string& reason : {decoder.probe(), decoder.refusal(mDecode.codec)}) {
            if (!reason.empty()) throw Failure("vxrun: " + reason, Verdict::NotSupported);
        }
        decoder.setEnvironment();
        TestedDecoder trusted;
        if (!mAgainst.empty()) {
            trusted = TestedDecoder::find(mAgainst);
            for (const std::string& reason : {trusted.probe(), trusted.refusal(mDecode.codec)}) {
                if (!reason.empty()) throw badOption("--against", reason);
            }
            trusted.setEnvironment();
            mDecode.against = &trusted;
        }
        Task task;
        task.input = mDecode.input;
        task.environment = decoder.environment();
        task.descriptions = descriptionsOf(mDecoders.names);
        task.graph = decoder.graphFor(mDecode, &task.limits);
        return runToVerdict(*this, std::move(task), options, evidence);
    }

    // On standard error: the MD5 is the last line on standard output.
    int conclude(const Evidence& evidence) const override {
        const int code = printVerdict(evidence, STDERR_FILENO);
        return code == exitCode(Verdict::NotSupported) ? mUnsupportedExit : code;
    }

private:
    DecodeOptions mDecode;
    DecoderOptions mDecoders;
    std::string mAgainst;
    int mUnsupportedExit = 69;  // EX_UNAVAILABLE, as runners of conformance suites expect it
};

const bool kRegistered = registerCommand(std::make_unique<DecodeCommand>());

}  // namespace
}  // namespace vxrun
