// source/ivf: the access units of an IVF file, of codecs that libavformat does not know, too.
#include "Ivf.h"
#include "Keys.h"

#include <vxkit/Source.h>

#include <algorithm>
#include <optional>

namespace vxrun {
namespace {

class IvfSource : public Source {
public:
    using Source::Source;

private:
    void open() override {
        mFile.emplace(requiredConfig(kFile));
        mStream = std::make_shared<BitstreamInfo>(mFile->stream());
    }
    std::string nothing() const override { return "no access unit in the file"; }

    bool next() override {
        const auto unit = std::make_shared<UnitInfo>();
        std::vector<uint8_t> bytes;
        if (!mFile->next(&bytes, &unit->pts)) return false;
        unit->dts = unit->pts;
        const size_t size = bytes.size();
        giveUnit(mStream, unit, size, [bytes = std::move(bytes)](uint8_t* to) {
            std::copy(bytes.begin(), bytes.end(), to);
        });
        return true;
    }

    std::optional<IvfReader> mFile;
    std::shared_ptr<BitstreamInfo> mStream;
};

const Registered<IvfSource> kType("source/ivf", "reads the access units of an IVF file", 0, 1,
                                  {&kFile});

}  // namespace
}  // namespace vxrun
