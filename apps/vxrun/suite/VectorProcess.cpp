#include "VectorProcess.h"

#include "FailureReport.h"
#include "Text.h"

namespace vxrun {

int VectorProcess::start(const GraphMaker& makeGraph, const VectorOptions& options,
                         const ProcessSignals& signals) {
    const auto makeEdited = [&] {
        vexa::VXGraphInfo graph = makeGraph();
        options.edits.applyTo(&graph);
        return graph;
    };
    Describe describe;
    if (options.commandOf) {
        describe = [&](const Evidence& evidence) {
            return wrongFramesOf(evidence, options.inputOf(mVector)).dump();
        };
    }
    return mProcess.start(makeEdited, options.run, signals, describe);
}

void VectorProcess::kill(int signal) {
    mWasSignaled = true;
    mProcess.kill(signal);
}

void VectorProcess::judge(bool negative, const VectorOptions& options) {
    const RunResult result = mProcess.result();
    mVector.log = mProcess.log();
    mVector.state = TestVector::ERROR;
    mVector.type = result.type;
    mVector.message = result.message;
    mVector.figures = result.nodeFigures;
    const int code = exitCode(result.verdict);
    if (mWasSignaled) {
        mVector.state = TestVector::TIMEOUT;
        mVector.type = verdictName(Verdict::Timeout);
        mVector.message = "ended after " + decimal(mVector.seconds, 1) + " s";
    } else if (code == exitCode(Verdict::NotSupported)) {
        mVector.state = TestVector::NOT_SUPPORTED;
    } else if (code == exitCode(Verdict::Timeout)) {
        mVector.state = TestVector::TIMEOUT;
    } else if (code == 0 || isFailedTest(result.verdict)) {
        judgePictures(result, negative);
    }
    const auto state = mVector.state;
    if (state != TestVector::SUCCESS && state != TestVector::NOT_SUPPORTED && options.commandOf) {
        describe(result, options);
    }
}

void VectorProcess::describe(const RunResult& result, const VectorOptions& options) {
    FailureSignature signature = result.signature;
    signature.type = mVector.type;
    const FailureJson wrong = FailureJson::parse(mProcess.description(), nullptr, false);
    const FailureJson failure =
        failureOf({signature, mVector.message, mVector.log, options.commandOf(mVector),
                   options.inputOf(mVector), options.bundle},
                  wrong);
    for (const std::string& line : linesOf(failure)) mVector.message += "; " + line;
    mVector.failure = failure.dump(-1, ' ', false, FailureJson::error_handler_t::replace);
}

// If the expected pictures are known, they decide: what a decoder reports as an error in an intact
// stream is not a failure.
void VectorProcess::judgePictures(const RunResult& result, bool negative) {
    mVector.actualMd5 = result.md5;
    const bool isRight =
        mVector.md5.empty() ? exitCode(result.verdict) == 0 : result.md5 == mVector.md5;
    if (isRight != negative) {
        mVector.state = TestVector::SUCCESS;
        // A list may not turn the right MD5 into a failure.
        mVector.message = !negative && !mVector.md5.empty() && !result.signature.kind.empty()
                              ? "the MD5 is right, but " + result.message
                              : "";
        mVector.log = {};  // of no use, and there may be many
        return;
    }
    mVector.state = TestVector::FAIL;
    if (negative) {
        mVector.type = "UNEXPECTED_PASS";
        mVector.message = "decoded without an error";
    } else if (!result.md5.empty()) {
        mVector.type = verdictName(Verdict::CrcMismatch);
        mVector.message = concat("expected MD5 ", mVector.md5, ", actual ", result.md5,
                                 mVector.message.empty() ? "" : "; ", mVector.message);
    }
}

}  // namespace vxrun
