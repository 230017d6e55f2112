// Md5: MD5 checksums of frames, and how they are written.
#pragma once

#include "Vxkit.h"

#include <openssl/evp.h>
#include <vxkit/FrameView.h>

#include <memory>
#include <string>

namespace vxrun {

constexpr size_t kMd5Digits = 32;

// The MD5 of no data. Any producer without output matches it, so it is refused as an expectation.
extern const char kMd5OfNothing[];

// Md5: the MD5 of all frames that were added.
//
// Threads  one at a time.
class Md5 {
public:
    Md5();
    void addFrame(const FrameView& frame);  // its visible bytes
    std::string hex();                      // ends it

private:
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> mState;
};

// The MD5 of one frame's visible bytes, in hexadecimal. Of several: md5sOf() in Md5Lanes.h.
std::string md5Of(const FrameView& frame);

// An MD5 in hexadecimal; `digest` has 16 bytes.
std::string hexOfMd5(const uint8_t* digest);

// Whether `word`, in lower case, is an MD5, with one digit too many at most (see ChecksumRow).
bool isMd5(const std::string& word);

// The MD5 in a line of text, in lower case: "hash *file", "hash  file", "MD5 (file) = hash",
// "MD5=hash" or the bare hash. Empty in a line of other text. Throws Failure for two, and for a
// damaged one: treated as other text, it would drop a frame from the comparison.
std::string findMd5(const std::string& line);

}  // namespace vxrun
