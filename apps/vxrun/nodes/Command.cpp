// codec/command: the pictures that a program decodes, as they arrive.
#include "Keys.h"
#include "MediaLibraries.h"
#include "PictureBytes.h"
#include "PictureReader.h"
#include "Program.h"
#include "Text.h"

#include <vxkit/Decoder.h>
#include <vxkit/Poller.h>
#include <vxkit/Source.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>

namespace vxrun {
namespace {

const WordsKey kCommand{
    "command",
    "the program and its arguments, with {input}, {output}, {codec}, {width}, {height}, {format}, "
    "{threads}"};
const WordsKey kEnvironment{"environment",
                            "NAME=VALUE for the program, in addition to vxrun's own"};
const ChoiceKey kOutput{"output",
                        {"pipe", "file"},
                        "what {output} names: pipe (default, a FIFO) or file, for programs that "
                        "seek in it"};
const TextKey kCodecName{"codec", "{codec}, default that of the stream"};
const NumberKey kWidth{"width", 1, 65535, 1, "of raw video, default that of the stream"};
const NumberKey kHeight{"height", 1, 65535, 1, "of raw video, default that of the stream"};

// OutputPath: a place for a program to write to, in a folder of its own, and what reads it.
class OutputPath {
public:
    explicit OutputPath(bool isFile) {
        const bool isMade =
            isFile ? close(open(path().c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)) == 0
                   : mkfifo(path().c_str(), 0600) == 0;
        mFile = open(path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (!isMade || mFile < 0) throw Failure(path() + ": " + errnoText(errno));
        // One writer more, so that the end of the last one is not a signal again and again.
        if (!isFile) mWriter = open(path().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (!isFile) return;
        mChanges = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (inotify_add_watch(mChanges, path().c_str(), IN_MODIFY) < 0) {
            throw Failure(path() + ": " + errnoText(errno));
        }
    }
    ~OutputPath() {
        for (const int file : {mFile, mWriter, mChanges}) {
            if (file >= 0) close(file);
        }
    }
    OutputPath(const OutputPath&) = delete;
    OutputPath& operator=(const OutputPath&) = delete;

    std::string path() const { return mFolder.path() + "/output.yuv"; }
    int file() const { return mFile; }
    // What is ready for reading when there is something new.
    int changes() const { return mChanges >= 0 ? mChanges : mFile; }
    void forgetChanges() const {
        char events[4096];
        while (mChanges >= 0 && read(mChanges, events, sizeof events) > 0) {
        }
    }

private:
    const TemporaryFolder mFolder;
    int mFile = -1;
    int mWriter = -1;   // of a FIFO
    int mChanges = -1;  // of a file, by inotify
};

class CommandSource : public Source {
public:
    using Source::Source;

    static void probe(const vexa::VXNodeDescriptor& node) {
        const auto words = kCommand.valueOf(kCommand.textIn(node));
        if (!words.empty() && !Program::exists(words[0]))
            throw Failure("no program " + quote(words[0]), Verdict::NotSupported);
    }

private:
    void open() override {
        mInput = requiredConfig(kFile);
        Program::Setup setup;
        bool namesInput = false;
        for (const std::string& word : requiredConfig(kCommand)) {
            namesInput = namesInput || word.find("{input}") < word.size();
            setup.command.push_back(expanded(word));
        }
        if (setup.command.empty()) throw Failure("config 'command' is empty");
        if (!namesInput) setup.input = mInput;
        setup.environment = config(kEnvironment);
        mName = setup.command[0];
        mProgram.emplace(setup);
        mPoller.emplace(resumer());
    }
    // What is wrong with the program, where it gave no picture or did not end well.
    std::string nothing() const override {
        return mName + ": " + (mEnd.empty() ? "no picture" : mEnd) + lastErrors();
    }

    // `word` with its placeholders replaced.
    std::string expanded(const std::string& word) {
        std::string text;
        for (size_t at = 0; at < word.size();) {
            const size_t end = word[at] == '{' ? word.find('}', at) : std::string::npos;
            if (end == std::string::npos) {
                text += word[at++];
                continue;
            }
            text += valueOf(word.substr(at + 1, end - at - 1));
            at = end + 1;
        }
        return text;
    }

    std::string valueOf(const std::string& placeholder) {
        if (placeholder == "input") return mInput;
        if (placeholder == "output") {
            if (!mPath) mPath.emplace(config(kOutput) == "file");
            return mPath->path();
        }
        if (placeholder == "threads") return std::to_string(config(kThreads));
        if (placeholder == "codec")
            return isGiven(kCodecName) ? config(kCodecName) : probed().codec();
        if (placeholder == "width") return std::to_string(rawPicture().width);
        if (placeholder == "height") return std::to_string(rawPicture().height);
        if (placeholder == "format") return rawPicture().pixels.name;
        throw Failure("config 'command': unknown placeholder {" + placeholder + "}");
    }

    VideoProbe& probed() {
        if (mProbed == nullptr) mProbed = probeVideo(mInput);
        return *mProbed;
    }

    // What raw video holds: what the configs state, else what the stream does.
    PictureFormat rawPicture() {
        const bool isKnown = isGiven(kWidth) && isGiven(kHeight) && isGiven(kFormat);
        PictureFormat picture = isKnown ? PictureFormat() : probed().picture();
        if (isGiven(kWidth)) picture.width = static_cast<int>(config(kWidth));
        if (isGiven(kHeight)) picture.height = static_cast<int>(config(kHeight));
        if (isGiven(kFormat)) picture.pixels = pixelFormatOf(config(kFormat));
        return picture;
    }

    bool next() override {
        // The first call is open()'s. However fast the program is, what it does belongs to the run.
        if (!std::exchange(mHasBegun, true)) {
            pause(mName);
            resumer()();
            return false;
        }
        readErrors();
        const bool hasEnded = mProgram->status().has_value();
        // What came before the program's end is there by now.
        while (!mPictures.hasPicture()) {
            if (readOutput()) continue;
            if (hasEnded) return giveRest();
            pause(mName);
            mPoller->watch({{mHasOutput ? outputFile() : -1, POLLIN, 0},
                            {mHasErrors ? mProgram->errors() : -1, POLLIN, 0},
                            {mProgram->end(), POLLIN, 0}});
            return false;
        }
        checkFormat(mPictures.stream()->picture.pixels);
        givePicture(mPictures.stream(), mGiven++,
                    [this](const FrameView& picture) { mPictures.takePicture(picture); });
        return true;
    }

    int outputFile() const { return mPath ? mPath->changes() : mProgram->output(); }

    // Reads what there is, up to the end of a picture; false when there is nothing.
    bool readOutput() {
        if (mPath) mPath->forgetChanges();
        size_t room = 0;
        uint8_t* const to = mPictures.room(&room);
        const ssize_t size = read(mPath ? mPath->file() : mProgram->output(), to, room);
        // A program may close its output long before its own end.
        if (size == 0 && !mPath) mHasOutput = false;
        if (size > 0) mPictures.added(static_cast<size_t>(size));
        return size > 0;
    }

    // Keeps the end of what the program writes to standard error.
    void readErrors() {
        constexpr size_t kKept = 4096;
        char text[4096];
        // Not without end: a program may write faster than this reads.
        for (int i = 0; i < 64 && mHasErrors; ++i) {
            const ssize_t size = read(mProgram->errors(), text, sizeof text);
            if (size == 0) mHasErrors = false;
            if (size <= 0) return;
            mErrors.append(text, static_cast<size_t>(size));
            if (mErrors.size() > kKept) mErrors.erase(0, mErrors.size() - kKept);
        }
    }

    // After the program's end: gives what makes no picture, if that may be; false for nothing.
    bool giveRest() {
        readErrors();
        mEnd = endText(*mProgram->status());
        const size_t size = mPictures.rest();
        // Raw video does not show where a picture of another size begins: only the whole counts.
        if (size == 0 || size > INT_MAX || !probed().changesSize()) {
            mPictures.finish();
            return false;
        }
        auto stream = std::make_shared<StreamInfo>(*mPictures.stream());
        stream->picture = PictureFormat::block(static_cast<int>(size));
        givePicture(stream, mGiven++,
                    [this](const FrameView& block) { mPictures.takeRest(block.plane(0)); });
        return true;
    }

    void checkFormat(const PixelFormat& pixels) {
        const std::string expected = PixelFormat{config(kFormat)}.rangelessName();
        if (expected.empty() || pixels.rangelessName() == expected) return;
        throw Failure("the pictures are " + pixels.rangelessName() + ", not " + quote(expected),
                      Verdict::NotSupported);
    }

    void finish(bool isEmpty) override {
        if (isEmpty) throw Failure(nothing(), Verdict::NodeFailFatal);
        if (!mEnd.empty() && !config(kTolerateErrors)) {
            failCheck(vexa::NODE_FAIL_FATAL, nothing());
        }
        Source::finish(isEmpty);
    }

    // The last line of standard error, as the end of an error line.
    std::string lastErrors() const {
        const size_t end = mErrors.find_last_not_of(" \t\r\n");
        if (end == std::string::npos) return "";
        const size_t start = mErrors.find_last_of("\r\n", end);
        return "; its last words: " +
               quote(mErrors.substr(start == std::string::npos ? 0 : start + 1,
                                    end - (start == std::string::npos ? -1 : start)));
    }

    std::string mInput, mName;
    std::unique_ptr<VideoProbe> mProbed;  // null as long as it is not needed
    std::optional<OutputPath> mPath;      // where the command names {output}
    std::optional<Program> mProgram;
    // [event thread]
    bool mHasBegun = false;
    PictureBytes mPictures{[this] { return rawStream(rawPicture()); }};
    uint64_t mGiven = 0;
    bool mHasOutput = true, mHasErrors = true;  // they have not been closed
    std::string mErrors;
    std::string mEnd;  // of the program; empty for exit code 0
    // Last, so that it ends first.
    std::optional<Poller> mPoller;
};

const Registered<CommandSource> kType("codec/command", "decodes a video file with a program", 0, 1,
                                      {&kFile, &kCommand, &kOutput, &kEnvironment, &kCodecName,
                                       &kWidth, &kHeight, &kThreads, &kFormat, &kTolerateErrors});

}  // namespace
}  // namespace vxrun
