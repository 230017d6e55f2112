// The decoders of codec/v4l2. Their pictures are the graph's: the device writes into the buffers of
// the node's pool, which travel on without a copy.
#include "Text.h"
#include "V4l2Codec.h"
#include "V4l2Queue.h"

#include <vxkit/Decoder.h>
#include <vxkit/Poller.h>

#include <linux/videodev2.h>

#include <cstring>
#include <map>
#include <optional>
#include <utility>

namespace vxrun {
namespace {

class V4l2Decoder : public Decoder {
public:
    using Decoder::Decoder;
    std::vector<std::string> getPreferredAllocatorTypes() override { return {"dmabuf"}; }

private:
    using Side = V4l2Device::Side;

    // ---- Access units ----

    void decode(const AccessUnit& unit) override {
        if (!mDevice) openDevice(unit.stream);
        collectUnits();
        std::shared_ptr<PoolBuffer> block;
        if (mUnits->isFull() || mUnitPool->fetch(&block) != vexa::VX_OK) {
            pause(mDevice->path());
            watch();
            return;
        }
        if (unit.size > mUnitPool->format().size()) {
            throw Failure(concat("an access unit of ", unit.size, " bytes, ", mDevice->path(),
                                 " accepts ", mUnitPool->format().size()));
        }
        std::memcpy(block->mapping()->vaddr(), unit.data, unit.size);
        mTimes[mNumber] = unit.info.pts;
        mUnits->queue(std::move(block), unit.size, mNumber++);
        if (!mUnits->isOn()) mUnits->stream(true);
    }

    void openDevice(const BitstreamInfo& stream) {
        const std::string codec = isGiven(kV4l2Codec) ? config(kV4l2Codec) : stream.codec;
        mDevice.emplace(V4l2Device::Search{true, codec, config(kV4l2Device)});
        mDevice->setControls(config(kV4l2Controls));
        mDevice->subscribe();
        V4l2Format format;
        format.code = mDevice->code();
        format.width = static_cast<uint32_t>(stream.picture.width);
        format.height = static_cast<uint32_t>(stream.picture.height);
        format.size = kUnitSize;
        format = mDevice->setFormat(Side::OUTPUT, format);
        mUnitPool = newPool(PictureFormat::block(static_cast<int>(format.size)), resumer());
        mUnits.emplace(*mDevice, Side::OUTPUT);
        mUnits->request(static_cast<unsigned>(config(kSlots)));
        mPictures.emplace(*mDevice, Side::CAPTURE);
        mPoller.emplace(resumer());
    }

    void collectUnits() {
        while (mUnits->dequeue()) continue;
    }

    // ---- Pictures ----

    bool next() override {
        if (!mDevice) return false;
        for (;;) {
            collectUnits();
            if (mDevice->takeSourceChange()) mHasNewSource = true;
            if (mPictures->isOn()) {
                refill();
                if (const auto done = mPictures->dequeue()) {
                    if (handle(done->result, done->buffer)) return true;
                    continue;
                }
            }
            if (!mHasNewSource || (mPictures->isOn() && !mHasLast)) break;
            restartPictures();
        }
        if (mIsDraining && !endDrain()) pause(mDevice->path());
        watch();
        return false;
    }

    // A buffer that the device has filled. True when it gives a picture.
    bool handle(const V4l2Device::Buffer& done, const std::shared_ptr<PoolBuffer>& buffer) {
        if (done.isLast) mHasLast = true;
        const auto time = mTimes.find(done.timestamp);
        // An empty buffer only marks the end, and has a stale timestamp; what was flushed may still
        // come.
        if (done.bytes == 0 || time == mTimes.end()) return false;
        if (done.isError) noteError("the device marks it as damaged");
        DecodedPicture picture;
        picture.format = mFormat;
        picture.pts = time->second;
        mTimes.erase(time);
        if (!mCopies) {
            give(picture, buffer);
            return true;
        }
        ++buffer->record().copied;
        give(picture, [stored = mStored, buffer](const FrameView& output) {
            copyStored(stored, buffer->mapping()->vaddr(), output);
        });
        return true;
    }

    // Gives the device every free buffer that no one uses any more.
    void refill() {
        while (!mHasLast && !mPictures->isFull()) {
            if (mAwaited == nullptr && mPicturePool->fetch(&mAwaited) != vexa::VX_OK) return;
            if (!mPictures->isReady(mAwaited->buffer())) return;
            mPictures->queue(std::exchange(mAwaited, nullptr), 0, 0);
        }
    }

    // After a source change, when the last picture of the one before has come.
    void restartPictures() {
        if (mPictures->isOn()) mPictures->stream(false);
        mPictures->request(0);
        mAwaited.reset();
        V4l2Format format = mDevice->format(Side::CAPTURE);
        format.code = bestCode(format.code);
        uint32_t width = format.width, height = format.height;
        mDevice->visibleSize(&width, &height);
        mFormat = {*pixelsOfV4l2(format.code), static_cast<int>(width), static_cast<int>(height)};

        // The layout of the pool's pictures, if the driver accepts it.
        auto pool = newPool(mFormat, resumer());
        std::shared_ptr<PoolBuffer> sample;
        if (pool->fetch(&sample) != vexa::VX_OK) throw Failure("no memory for a picture");
        const auto& surface = dynamic_cast<const vexa::VXGraphicBuffer&>(sample->buffer());
        const auto bytes = static_cast<uint32_t>(mFormat.pixels.bytesPerSample());
        V4l2Format wanted = format;
        wanted.width = surface.stride();
        wanted.height = surface.sliceHeight();
        wanted.stride = surface.stride() * bytes;
        wanted.size = static_cast<uint32_t>(surface.capacity());
        mStored = mDevice->setFormat(Side::CAPTURE, wanted);
        const bool isStored = poolFormatOf(mFormat.pixels) != kSurfaceFormat;
        mCopies = !isStored || mStored.code != wanted.code || mStored.stride != wanted.stride ||
                  mStored.height != wanted.height || mStored.size > wanted.size;
        if (mCopies) {
            mStored = mDevice->setFormat(Side::CAPTURE, format);
            pool = newPool(PictureFormat::block(static_cast<int>(mStored.size)), resumer());
        }
        sample.reset();
        mPicturePool = std::move(pool);
        mPictures->request(static_cast<unsigned>(config(kSlots)));
        mHasNewSource = mHasLast = false;
        refill();
        mPictures->stream(true);
        if (mIsDraining) mDevice->startDrain();
    }

    // The layout to ask for: one of the pools', else the driver's own, if it is known.
    uint32_t bestCode(uint32_t preset) const {
        uint32_t best = pixelsOfV4l2(preset) ? preset : 0;
        for (const uint32_t code : mDevice->formatCodes(Side::CAPTURE)) {
            const auto pixels = pixelsOfV4l2(code);
            if (!pixels) continue;
            const bool isStored = poolFormatOf(*pixels) != kSurfaceFormat;
            const bool hasSameSamples =
                best == 0 || pixels->planar() == pixelsOfV4l2(best)->planar();
            if (best == 0 || (isStored && hasSameSamples)) best = code;
        }
        if (best != 0) return best;
        throw Failure(
            mDevice->path() + ": no known layout of pictures, its own is " + fourccText(preset),
            Verdict::NotSupported);
    }

    // ---- Draining and flushing ----

    void drain() override {
        if (!mDevice) return;
        mIsDraining = true;
        if (mPictures->isOn()) mDevice->startDrain();
    }

    // True when the last picture has come, and the device is ready for more.
    bool endDrain() {
        // Nothing was decodable: the device has taken everything, and found no picture in it.
        const bool isEmpty = !mPictures->isOn() && mUnits->isEmpty();
        if (!mHasLast && !isEmpty) return false;
        mIsDraining = false;
        if (mHasLast) restartQueue();
        return true;
    }

    // As if the stream began here. Drivers differ in what is left of a layout after a seek; none
    // does after its device was opened.
    void flush() override {
        mTimes.clear();
        mPoller.reset();
        mAwaited.reset();
        mUnits.reset();
        mPictures.reset();
        mDevice.reset();
        mHasNewSource = mHasLast = mIsDraining = false;
    }

    // Starts pictures anew: not all drivers have a command for it.
    void restartQueue() {
        mPictures->stream(false);
        mHasLast = false;
        refill();
        mPictures->stream(true);
    }

    // Has next() called when the device has something. Not while it has no buffers: it would be
    // "ready", with an error, all the time.
    void watch() {
        short events = POLLPRI;
        if (mUnits->isOn() && !mUnits->isEmpty()) events |= POLLOUT;
        if (mPictures->isOn() && !mPictures->isEmpty() && !mHasLast) events |= POLLIN;
        const bool hasBuffers = events != POLLPRI;
        std::vector<pollfd> files = {{hasBuffers ? mDevice->file() : -1, events, 0}};
        if (mAwaited != nullptr) files.push_back(mPictures->fencesOf(mAwaited->buffer()));
        mPoller->watch(std::move(files));
    }

    static constexpr uint32_t kUnitSize = 2 << 20;  // bytes of an access unit that fit

    // [event thread]
    std::optional<V4l2Device> mDevice;  // from the first access unit on
    std::shared_ptr<Pool> mUnitPool, mPicturePool;
    std::optional<V4l2Queue> mUnits, mPictures;
    std::shared_ptr<PoolBuffer> mAwaited;  // for the device, as soon as its fences have fired
    uint64_t mNumber = 0;                  // of the next access unit, its timestamp in the device
    std::map<uint64_t, int64_t> mTimes;    // by number: of pictures that are to come
    PictureFormat mFormat;                 // of the pictures
    V4l2Format mStored;                    // in the device's buffers
    bool mCopies = false;                  // pictures: the driver's layout is not the pool's
    bool mHasNewSource = false;            // the pictures' format has changed
    bool mHasLast = false;                 // no more pictures until restartQueue()
    bool mIsDraining = false;
    // Last, so that it ends first.
    std::optional<Poller> mPoller;
};

}  // namespace

std::unique_ptr<vexa::VXNode> newV4l2Decoder(NodeArguments arguments) {
    return makeNode<V4l2Decoder>(std::move(arguments));
}

}  // namespace vxrun
