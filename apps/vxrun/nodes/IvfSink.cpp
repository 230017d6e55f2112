// sink/ivf: writes access units into an IVF file, of codecs that libavformat does not know, too.
#include "Ivf.h"
#include "Keys.h"

#include <vxkit/Sink.h>

#include <optional>

namespace vxrun {
namespace {

class IvfSink : public Sink {
public:
    using Sink::Sink;

private:
    void open() override { mPath = requiredConfig(kFile); }

    void consume(const Frame& frame) override {
        const AccessUnit unit(frame);
        if (!mFile) mFile.emplace(mPath, unit.stream);
        mFile->write(unit.data, unit.size, unit.info.pts);
    }
    void finish() override {
        if (mFile) mFile->commit();
    }

    std::string mPath;
    std::optional<IvfWriter> mFile;
};

const Registered<IvfSink> kType("sink/ivf", "writes access units into an IVF file", 1, 0, {&kFile});

}  // namespace
}  // namespace vxrun
