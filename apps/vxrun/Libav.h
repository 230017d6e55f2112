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

}  // namespace vxrun
