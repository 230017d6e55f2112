#include "BundledRun.h"

#include "BadFrames.h"
#include "Console.h"
#include "ProcessCopy.h"
#include "Program.h"
#include "Text.h"
#include "Version.h"

#include <vxkit/NodeType.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <new>

namespace vxrun {

namespace fs = std::filesystem;

constexpr char kNothing[] =
    "vxrun: nothing has failed that a bundle would help with: none is written";

// What the copy hands back. Plain memory: it may end at any moment.
struct BundledRun::Shared {
    volatile bool isComplete = false;  // set last
    Verdict verdict = Verdict::UnknownError;
    char kind[64] = "", shape[64] = "", message[2048] = "";
};

// Whether a run that ended so has failed in a way that can be repeated.
static bool isWorthABundle(Verdict verdict) {
    switch (verdict) {
        case Verdict::NothingChecked:
        case Verdict::NotSupported:
        case Verdict::BadOption:
        case Verdict::NotWritten:
        case Verdict::Interrupted:
        case Verdict::Terminated:
            return false;
        default:
            return exitCode(verdict) != 0;
    }
}

void checkBundleFile(const BundleOptions& options) {
    try {
        OutputFile(options.file);
    } catch (const Failure& failure) {
        throw badOption("--bundle", failure.what());
    }
}

void writeBundle(const BundleOptions& options, BundleMaker* bundle) {
    if (bundle->size() == 0) {
        console::note(kNothing);
        return;
    }
    try {
        bundle->write(options.file);
        console::note("vxrun: to repeat what failed: " +
                      joinedWords({"vxrun", "replay", options.file}));
    } catch (const std::exception& exception) {
        console::line(concat("vxrun: --bundle: ", exception.what()));
    }
}

BundledRun::BundledRun(const CommonOptions& options, Task* task, RunOptions* run)
    : mOptions(options), mTask(*task), mRun(*run), mFacts(environmentFacts()) {
    checkBundleFile(options.bundle);
    mFacts.emplace_back("command_line", options.commandLine);
    if (run->trace.empty()) run->trace = mFolder.path() + "/trace.json";
    if (run->dot.empty()) run->dot = mFolder.path() + "/snapshots";
    for (const auto& node : task->graph.nodes) {
        const NodeType* const type = findNodeType(node->type);
        if (type == nullptr || !type->declares(kDumpBad)) continue;
        std::string& folder = node->configs[kDumpBad.name];
        if (folder.empty()) folder = mFolder.path() + "/frames";
        mDumps.push_back(folder);
    }
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw Failure("vxrun: --bundle: " + errnoText(errno));
    mShared = new (memory) Shared();
}

BundledRun::~BundledRun() {
    munmap(mShared, sizeof(Shared));
}

std::optional<int> BundledRun::run() {
    const auto end = goOnInCopy(mSignals);
    if (!end) {
        console::configure(mOptions.quiet, mOptions.color);
        return {};
    }
    if (auto run = failedRun(end->status)) {
        pack(std::move(*run), end->log);
    } else {
        console::note(kNothing);
    }
    if (!WIFSIGNALED(end->status)) return WEXITSTATUS(end->status);
    // As without a bundle, but for a second core file.
    const int number = WTERMSIG(end->status);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    std::error_code ignored;
    fs::remove_all(mFolder.path(), ignored);
    std::signal(number, SIG_DFL);
    raise(number);
    return 128 + number;
}

void BundledRun::handBack(RunReport report, const Evidence& evidence) {
    report.files = {{"json", mFolder.path() + "/report.json"}};
    report.facts = mFacts;
    for (const Failure& failure : writeRunReports(report, evidence, true)) {
        console::line(failure.what());
    }
    const auto copy = [](const std::string& text, auto& to) {
        to[text.copy(to, sizeof to - 1)] = '\0';
    };
    const FailureSignature signature = signatureOf(evidence);
    mShared->verdict = evidence.verdict();
    copy(signature.kind, mShared->kind);
    copy(signature.shape, mShared->shape);
    copy(printable(console::firstError()), mShared->message);
    mShared->isComplete = true;
}

// The run, when it has failed.
std::optional<FailedRun> BundledRun::failedRun(int status) const {
    FailedRun run;
    run.name = mTask.input;
    run.options = mRun;
    run.environment = mTask.environment;
    if (WIFSIGNALED(status)) {
        run.signature.type = concat("SIGNAL_", WTERMSIG(status));
        run.message = endText(status);
        return run;
    }
    if (!mShared->isComplete || !isWorthABundle(mShared->verdict)) return {};
    run.signature = {verdictName(mShared->verdict), mShared->kind, mShared->shape};
    run.message = mShared->message;
    return run;
}

// Copies a file of the run, or those of a folder, to the name `to` in our own, unless it is there.
void BundledRun::collect(const std::string& from, const std::string& to) const {
    const fs::path folder = mFolder.path(), target = folder / to;
    std::error_code none;
    if (from.rfind(mFolder.path() + "/", 0) == 0) return;
    if (fs::is_regular_file(from, none)) fs::copy_file(from, target, none);
    for (const auto& entry : fs::directory_iterator(from, none)) {
        // What an earlier run has left is not of this one. The clock of files is a coarse one.
        const bool isNew = entry.last_write_time(none) + std::chrono::seconds(1) > mStart;
        if (!entry.is_regular_file(none) || !isNew) continue;
        fs::create_directories(target, none);
        fs::copy_file(entry.path(), target / entry.path().filename(), none);
    }
}

void BundledRun::pack(FailedRun run, const std::string& log) {
    try {
        collect(mRun.trace, "trace.json");
        collect(mRun.dot, "snapshots");
        for (const std::string& folder : mDumps) collect(folder, "frames");
        writeTextFile("--bundle", mFolder.path() + "/log.txt", log);
        const std::string report = mFolder.path() + "/report.json";
        if (fs::exists(report)) {
            // Paths become names in the bundle.
            std::string text = readTextFile(report, 1 << 30);
            const std::string folder = mFolder.path() + "/";
            for (size_t at = 0; (at = text.find(folder, at)) < text.size();) {
                text.erase(at, folder.size());
            }
            writeTextFile("--bundle", report, text);
        }
        BundleMaker bundle(mOptions.bundle.refers, mFacts, [this] { mSignals.check(); });
        bundle.add(std::move(run), std::move(mTask.graph), mFolder.path(), mTask.descriptions);
        writeBundle(mOptions.bundle, &bundle);
    } catch (const std::exception& exception) {  // a disk is full, a signal has arrived
        console::line(concat("vxrun: --bundle: ", exception.what()));
    }
}

}  // namespace vxrun
