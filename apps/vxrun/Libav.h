// Libav: what the nodes that use FFmpeg's libraries share.
#pragma once

#include "Payload.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdarg>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace vxrun {

struct LibavDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
template <typename Object>
using Libav = std::unique_ptr<Object, LibavDeleter>;

// A new object of a kind that only takes memory: made<AVFrame>(av_frame_alloc()).
template <typename Object>
Libav<Object> made(Object* object) {
    if (object == nullptr) throw std::bad_alloc();
    return Libav<Object>(object);
}

// The text of an error that the libraries returned.
std::string libavText(int error);

inline AVRational rational(const Rational& value) {
    return {static_cast<int>(value.num), static_cast<int>(value.den)};
}
inline Rational rational(const AVRational& value) {
    return {static_cast<uint64_t>(value.num), static_cast<uint64_t>(value.den)};
}

// LibavOptions: what a codec or demuxer is opened with.
class LibavOptions {
public:
    // From the text of a config 'options', key=value:key=value; a Failure when it is none.
    explicit LibavOptions(const std::string& text);
    ~LibavOptions() { av_dict_free(&mOptions); }
    LibavOptions(const LibavOptions&) = delete;
    LibavOptions& operator=(const LibavOptions&) = delete;

    // Unless the text has set it; an empty value is none.
    void preset(const char* key, const std::string& value);
    // For the call that opens, which takes out what it knows.
    AVDictionary** get() { return &mOptions; }
    // A Failure for the `result` of that call, or that names the first option that was left; `who` is
    // what was to be opened.
    void check(int result, const std::string& who) const;

private:
    const std::string mText;
    AVDictionary* mOptions = nullptr;
};

// The name of a pixel format, by FFmpeg; a Failure with the verdict NOT_SUPPORTED for those that Payload
// cannot carry: it takes planes of whole samples, little endian.
PictureFormat formatOf(AVPixelFormat pixels, int width, int height);
// A new picture of that format, not filled.
Libav<AVFrame> newPicture(const PictureFormat& format);

// Copies the visible samples; both have the same format.
void copyPicture(const AVFrame& picture, const Payload& payload);
// The picture that a work carries, copied; `*stream` is its stream. A Failure when it carries none.
Libav<AVFrame> pictureOf(const vexa::VXSharedWork& work, const StreamInfo** stream);

// CodecLog: the first error that a codec has told the log since the last look. Codecs conceal most
// damage and tell nobody but the log. What the libraries log besides goes nowhere from
// takeOver() on.
//
// Life     outlives the codecs that it listens to.
// Threads  any: codecs log on threads of their own.
class CodecLog {
public:
    // Listens to `codec`, which has not been opened.
    void attach(AVCodecContext* codec);
    // The first error since the last call; empty when there was none.
    std::string take();

    // Puts itself in the place of the libraries' own log.
    static void takeOver();

private:
    static void write(void* object, int level, const char* format, va_list arguments);

    std::mutex mLock;
    std::string mFirst;  // guarded by mLock
};

// BitstreamInfo: the stream of a demuxed file, for the decoder.
struct BitstreamInfo : public StreamInfo {
    Libav<AVCodecParameters> parameters = made(avcodec_parameters_alloc());
    AVRational frameRate = {0, 1};  // 0/1 when unknown
};

// UnitInfo: what the demuxer says of one access unit besides its bytes.
struct UnitInfo : public vexa::VXInfo {
    Libav<AVPacket> properties = made(av_packet_alloc());  // without data
};

// The access unit that a frame's payload is: a copy of its bytes, with its properties; `*stream` is its
// stream. A Failure when it is none.
Libav<AVPacket> unitOf(const Payload& payload, const vexa::VXFrameInfo& frame,
                       const BitstreamInfo** stream);

}  // namespace vxrun
