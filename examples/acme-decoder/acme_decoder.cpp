// acme/decoder: an HEVC decoder for vxrun. It stands for yours: the codec here is libde265.
#include <vxkit/Decoder.h>
#include <vxkit/NodeType.h>
#include <vxkit/Text.h>

#include <libde265/de265.h>

#include <cstring>
#include <new>

namespace {

using namespace vxkit;

const NumberKey kThreads{"threads", 0, 32, 0, "threads of the decoder, default 0: none of its own"};

class AcmeDecoder : public Decoder {
public:
    using Decoder::Decoder;
    ~AcmeDecoder() override { de265_free_decoder(mDecoder); }

private:
    // Called once, before the first access unit. What is thrown ends the run with this text.
    void open() override {
        if (mDecoder == nullptr) throw std::bad_alloc();
        const int threads = static_cast<int>(config(kThreads));
        if (threads > 0) check(de265_start_worker_threads(mDecoder, threads));
    }

    void decode(const AccessUnit& unit) override {
        if (unit.stream.codec != "hevc") {
            throw Failure("cannot decode " + unit.stream.codec, Verdict::NotSupported);
        }
        check(de265_push_data(mDecoder, unit.data, static_cast<int>(unit.size), unit.info.pts,
                              nullptr));
    }

    bool next() override {
        for (int more = 1; more != 0;) {
            if (const de265_image* const image = de265_get_next_picture(mDecoder)) {
                giveImage(*image);
                return true;
            }
            const de265_error error = de265_decode(mDecoder, &more);
            if (error == DE265_ERROR_WAITING_FOR_INPUT_DATA) break;
            check(error);
            while (const de265_error warning = de265_get_warning(mDecoder)) check(warning);
        }
        return false;
    }

    // Called at the end of the stream: next() shall give what is still held back.
    void drain() override { check(de265_flush_data(mDecoder)); }

    // Copies an image, which is valid until the next call of the decoder, into a buffer of the
    // graph.
    void giveImage(const de265_image& image) {
        static const char* const kLayouts[] = {"gray", "yuv420p", "yuv422p", "yuv444p"};
        const int depth = de265_get_bits_per_pixel(&image, 0);
        const std::string layout = kLayouts[de265_get_chroma_format(&image)];
        const auto pixels = findPixelFormat(depth > 8 ? concat(layout, depth, "le") : layout);
        if (!pixels) throw Failure(concat(layout, " of ", depth, " bits"), Verdict::NotSupported);
        DecodedPicture picture;
        picture.format = {*pixels, de265_get_image_width(&image, 0),
                          de265_get_image_height(&image, 0)};
        picture.pts = de265_get_image_PTS(&image);
        give(picture, [&image](const FrameView& output) {
            for (int plane = 0; plane < output.format().pixels.planes; ++plane) {
                int stride = 0;
                const uint8_t* row = de265_get_image_plane(&image, plane, &stride);
                for (int y = 0; y < output.format().rows(plane); ++y, row += stride) {
                    std::memcpy(output.row(plane, y), row, output.format().rowBytes(plane));
                }
            }
        });
    }

    // Errors in the stream fail the run at its end: a decoder that conceals them goes on.
    void check(de265_error error) {
        if (!de265_isOK(error)) noteError(de265_get_error_text(error));
    }

    de265_decoder_context* const mDecoder = de265_new_decoder();
};

const Registered<AcmeDecoder> kType("acme/decoder", "decodes HEVC with libde265", 1, 1,
                                    {&kThreads});

}  // namespace
