// Libav: what all users of FFmpeg's libraries share: ownership, options, the codec's log, scaling.
#pragma once

#include "Vxkit.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <cstdarg>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace vxrun {

struct LibavDeleter {
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
template <typename Object>
using Libav = std::unique_ptr<Object, LibavDeleter>;

// A new object whose allocation can only fail for lack of memory: made(av_frame_alloc()).
template <typename Object>
Libav<Object> made(Object* object) {
    if (object == nullptr) throw std::bad_alloc();
    return Libav<Object>(object);
}

// The text of an error that the libraries returned.
std::string libavText(int error);

// A new picture, not filled.
Libav<AVFrame> newPicture(AVPixelFormat pixels, int width, int height);

// A scaler from the format and size of one picture to another's, without dithering. `flags` are
// those of libswscale. Throws Failure when it does not know them or does not convert.
Libav<SwsContext> newScaler(const AVFrame& from, const AVFrame& to, const std::string& flags);

// LibavOptions: what a codec or demuxer is opened with.
//
// Threads  one at a time.
// Owns     the dictionary.
class LibavOptions {
public:
    // From the text of a config 'options', key=value:key=value. Throws Failure when it is
    // malformed.
    explicit LibavOptions(const std::string& text);
    ~LibavOptions() { av_dict_free(&mOptions); }
    LibavOptions(const LibavOptions&) = delete;
    LibavOptions& operator=(const LibavOptions&) = delete;

    // Sets an option unless the text has set it or `value` is empty.
    void preset(const char* key, const std::string& value);
    // For the call that opens, which removes the options that it uses.
    AVDictionary** get() { return &mOptions; }
    // Throws Failure for the `result` of that call, and for the first option that remains;
    // `subject` is what was to be opened.
    void check(int result, const std::string& subject) const;

private:
    const std::string mText;
    AVDictionary* mOptions = nullptr;
};

// CodecLog: the first error that a codec has logged since the last call of takeFirstError(). Codecs
// conceal most damage and report it nowhere but in the log.
//
// The libraries have one log callback per process. takeOver() replaces it: from then on messages of
// codecs go to the CodecLog that each is attached to, and all others are dropped.
//
// Life     outlives the codecs that it listens to.
// Threads  any: codecs log on threads of their own.
class CodecLog {
public:
    CodecLog();
    ~CodecLog();
    CodecLog(const CodecLog&) = delete;
    CodecLog& operator=(const CodecLog&) = delete;

    // Listens to `codec`, which has not been opened.
    void attach(AVCodecContext* codec);
    // The first error since the last call; `otherwise` when there was none.
    std::string takeFirstError(const std::string& otherwise = {});

    // Listens to everything else that the calling thread logs, until it ends.
    void listenHere();

    // From now on `take` is given every line that a bitstream filter logs on the calling thread,
    // informative ones, too; empty: none.
    static void traceHere(std::function<void(const std::string& line)> take);

    // Replaces the libraries' own log.
    static void takeOver();

private:
    static void write(void* object, int level, const char* format, va_list arguments);

    std::mutex mLock;
    std::string mFirst;  // guarded by mLock
};

}  // namespace vxrun
