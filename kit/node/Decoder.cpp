#include <vxkit/Decoder.h>
#include <vxkit/Text.h>

#include <algorithm>

namespace vxkit {

const TextKey kFormat{"format", "the pixel format that the pictures must have, such as yuv420p"};
const FlagKey kTolerateErrors{"tolerate_errors", "true: errors in the stream do not fail the run"};

namespace {

// `time` in units of `from` as the nearest multiple of `to`.
int64_t rescaled(int64_t time, Rational from, Rational to) {
    const auto product = static_cast<__int128>(time) * from.num * to.den;
    const auto unit = static_cast<__int128>(from.den) * to.num;
    return static_cast<int64_t>((product + (product < 0 ? -unit : unit) / 2) / unit);
}

}  // namespace

std::vector<const ConfigKey*> Decoder::commonConfigs() {
    auto keys = Producer::commonConfigs();
    keys.insert(keys.begin(), {&kFormat, &kTolerateErrors});
    return keys;
}

std::vector<EntryKey> Decoder::commonEntries() {
    constexpr uint32_t kCommand = vexa::VXNodeDescriptor::ConfigEntry::COMMAND;
    return {{kCommand, "flush", 1, 1, "command, 1: drops the pictures that the decoder holds back"},
            {kCommand, "drain", 1, 1,
             "command, 1: sends the pictures that the decoder holds back, then starts anew"}};
}

bool Decoder::feed(const vexa::VXSharedWork& work, uint64_t number) {
    const Frame frame(work);
    if (!obeyCommands(number)) return false;
    const AccessUnit unit(frame);
    mTimeBase = unit.stream.timeBase;
    mFrameRate = unit.stream.frameRate;
    mSar = unit.stream.sar;
    if (unit.info.isCorrupt) noteError(concat("access unit ", number, " is damaged"));
    const auto now = Clock::now();
    decode(unit);
    mIsStarted = true;
    // Of units that give no picture, some pile up here: the oldest are of no use any more.
    constexpr size_t kMostTaken = 1024;
    if (!isPaused() && unit.info.pts != UnitInfo::kNoTime) mTakenAt[unit.info.pts] = now;
    if (mTakenAt.size() > kMostTaken) mTakenAt.erase(mTakenAt.begin());
    return true;
}

void Decoder::flush() {
    drain();
    while (next()) drop();
}

// Checks a picture and brings the time up to it.
std::shared_ptr<StreamInfo> Decoder::nextStream(const DecodedPicture& picture) {
    const std::string actual = picture.format.pixels.rangelessName();
    const std::string expected = PixelFormat{config(kFormat)}.rangelessName();
    // Whatever the layout, the samples are those of the planar format.
    const bool fits = actual == expected || picture.format.pixels.planar().name == expected;
    if (!expected.empty() && !fits) {
        throw Failure("the pictures are " + actual + ", not " + quote(expected),
                      Verdict::NotSupported);
    }
    auto stream = std::make_shared<StreamInfo>();
    stream->picture = picture.format;
    stream->profile = picture.profile;
    stream->sar = picture.sar.num > 0 ? picture.sar : mSar;
    stream->timeBase = mFrameRate.num > 0 ? Rational{mFrameRate.den, mFrameRate.num} : mTimeBase;
    stream->duration = 1;
    mTime = picture.pts == UnitInfo::kNoTime
                ? mTime + 1
                : std::max<int64_t>(rescaled(picture.pts, mTimeBase, stream->timeBase), 0);
    ++mPictures;
    return stream;
}

void Decoder::give(const DecodedPicture& picture, std::function<void(const FrameView&)> fill) {
    const auto stream = nextStream(picture);
    givePicture(stream, static_cast<uint64_t>(mTime), std::move(fill));
    noteTaken(picture);
}

void Decoder::give(const DecodedPicture& picture, std::shared_ptr<PoolBuffer> buffer) {
    vexa::VXFrameInfo frame;
    frame.mInfos = {nextStream(picture)};
    frame.timestamp = static_cast<uint64_t>(mTime);
    giveFilled(std::move(buffer), std::move(frame));
    noteTaken(picture);
}

// Pictures are matched with their units by time, as decoders reorder them and drop some.
void Decoder::noteTaken(const DecodedPicture& picture) {
    const auto taken = mTakenAt.find(picture.pts);
    if (taken == mTakenAt.end()) return;
    noteSince(taken->second);
    mTakenAt.erase(taken);
}

void Decoder::noteError(const std::string& text) {
    if (mErrors++ == 0) mFirstError = concat("frame ", mPictures, ": ", text);
}

void Decoder::finish(bool nothing) {
    if (nothing) {
        throw Failure("no frame in the stream" + (mErrors > 0 ? "; " + mFirstError : ""),
                      Verdict::InfoValidationFail);
    }
    if (mErrors > 0 && !config(kTolerateErrors)) {
        failCheck(vexa::INFO_VALIDATION_FAIL,
                  concat("errors in decoding: ", mErrors, ", first at ", mFirstError));
    }
    Producer::finish(nothing);
}

// Obeys the commands at access unit `number`. False when it is to wait for a drain; what is left is
// obeyed next time.
bool Decoder::obeyCommands(uint64_t number) {
    for (auto& command : configStore().commandsAt(number)) {
        mCommands.push_back(std::move(command.first));
    }
    while (!mCommands.empty()) {
        const std::string command = std::move(mCommands.front());
        mCommands.pop_front();
        if (!mIsStarted) continue;  // nothing to flush or drain
        if (command == "drain") {
            drain();
            return false;
        }
        flush();
    }
    return true;
}

}  // namespace vxkit
