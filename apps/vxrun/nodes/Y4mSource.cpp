// source/y4m: the pictures of a YUV4MPEG2 file.
#include "Keys.h"
#include "PictureSource.h"
#include "Y4m.h"

namespace vxrun {
namespace {

class Y4mSource : public PictureSource {
public:
    using PictureSource::PictureSource;

private:
    void open() override { read(std::make_unique<Y4mReader>(requiredConfig(kFile))); }
};

const Registered<Y4mSource> kType("source/y4m", "reads the pictures of a YUV4MPEG2 file", 0, 1,
                                  {&kFile});

}  // namespace
}  // namespace vxrun
