#include "Md5Lanes.h"

#include "Md5.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <deque>

namespace vxrun {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "MD5's words are read as they are");

constexpr size_t kBlock = 64;  // bytes that one step of MD5 takes
constexpr size_t kWords = 4;   // of its state

// The state of all lanes: a word of each beside another.
using State = std::array<std::array<uint32_t, kMd5Lanes>, kWords>;
constexpr std::array<uint32_t, kWords> kStart = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

// RFC 1321, 3.4: the integer part of 2^32 times abs(sin(i)), and the rotations.
constexpr uint32_t kSines[kBlock] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
constexpr int kRotations[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Takes `blocks` blocks of each lane, from at[lane] on, in vectors of `Width` words. The compiler
// unrolls all of the loops within a block.
template <size_t Width>
[[gnu::always_inline]] inline void compress(State* state, const uint8_t* const* at, size_t blocks) {
    using Vector [[gnu::vector_size(4 * Width)]] = uint32_t;
    constexpr size_t kVectors = kMd5Lanes / Width;
    Vector sum[kWords][kVectors];
    std::memcpy(sum, state, sizeof sum);
    for (size_t block = 0; block < blocks; ++block) {
        Vector message[16][kVectors];
        for (size_t word = 0; word < 16; ++word) {
            for (size_t lane = 0; lane < kMd5Lanes; ++lane) {
                uint32_t value = 0;
                std::memcpy(&value, at[lane] + block * kBlock + 4 * word, sizeof value);
                message[word][lane / Width][lane % Width] = value;
            }
        }
        Vector words[kWords][kVectors];
        std::memcpy(words, sum, sizeof words);
#pragma GCC unroll 64
        for (size_t i = 0; i < kBlock; ++i) {
            const size_t round = i / 16;
            const size_t from[] = {i, 5 * i + 1, 3 * i + 5, 7 * i};
            const int bits = kRotations[round][i % 4];
            for (size_t v = 0; v < kVectors; ++v) {
                Vector& a = words[(64 - i) % 4][v];
                const Vector b = words[(65 - i) % 4][v];
                const Vector c = words[(66 - i) % 4][v];
                const Vector d = words[(67 - i) % 4][v];
                const Vector mixed = round == 0   ? d ^ (b & (c ^ d))
                                     : round == 1 ? c ^ (d & (b ^ c))
                                     : round == 2 ? b ^ c ^ d
                                                  : c ^ (b | ~d);
                const Vector turned = a + mixed + message[from[round] % 16][v] + kSines[i];
                a = b + (turned << bits | turned >> (32 - bits));
            }
        }
        for (size_t w = 0; w < kWords; ++w) {
            for (size_t v = 0; v < kVectors; ++v) sum[w][v] += words[w][v];
        }
    }
    std::memcpy(state, sum, sizeof sum);
}

using Compress = void (*)(State* state, const uint8_t* const* at, size_t blocks);

void compressBase(State* state, const uint8_t* const* at, size_t blocks) {
    compress<4>(state, at, blocks);
}

#ifdef __x86_64__
[[gnu::target("avx2")]] void compressAvx2(State* state, const uint8_t* const* at, size_t blocks) {
    compress<8>(state, at, blocks);
}

// Its rotations and three-way logic, in vectors of 256 bits.
[[gnu::target("avx512f,avx512vl")]] void compressAvx512(State* state, const uint8_t* const* at,
                                                        size_t blocks) {
    compress<8>(state, at, blocks);
}

Compress compressOf(InstructionSet set) {
    return set == InstructionSet::AVX512 ? compressAvx512
           : set == InstructionSet::AVX2 ? compressAvx2
                                         : compressBase;
}
#else
Compress compressOf(InstructionSet) {
    return compressBase;
}
#endif

// Message: the blocks of one frame: its visible bytes, and behind them the padding.
class Message {
public:
    explicit Message(const FrameView& frame) : mFrame(frame) { seek(); }

    // The next blocks, which follow one another in memory; none after the last.
    const uint8_t* at() const { return mAt; }
    size_t blocks() const { return mBlocks; }
    void skip(size_t blocks) {
        mAt += blocks * kBlock;
        mBlocks -= blocks;
        if (mBlocks == 0) seek();
    }

private:
    void seek() {
        if (mIsPadded) return;
        const size_t bytes = leftInRow();
        if (bytes >= kBlock) {
            mAt = row();
            mBlocks = bytes / kBlock;
            mX += mBlocks * kBlock;
            return;
        }
        // A block over the end of a row.
        mAt = mOwn.data();
        mBlocks = 1;
        size_t size = 0;
        while (const size_t part = std::min(leftInRow(), kBlock - size)) {
            std::memcpy(mOwn.data() + size, row(), part);
            mX += part;
            size += part;
        }
        if (size < kBlock) pad(size);
    }

    const uint8_t* row() const { return mFrame.row(mPlane, mY) + mX; }
    // The bytes that are left of the row, or of the next one that has any; 0 after the last.
    size_t leftInRow() {
        const PictureFormat& format = mFrame.format();
        while (mPlane < format.pixels.planes) {
            const size_t bytes = format.rowBytes(mPlane);
            const int rows = format.rows(mPlane);
            if (mY < rows && mX < bytes) return bytes - mX;
            mX = 0;
            if (++mY < rows) continue;
            mY = 0;
            ++mPlane;
        }
        return 0;
    }

    // RFC 1321, 3.1 and 3.2: a bit, zeros up to the end of a block, in its last 8 bytes the length
    // in bits.
    void pad(size_t size) {
        const uint64_t bits = uint64_t{mFrame.size()} * 8;
        if (size + 1 + sizeof bits > kBlock) mBlocks = 2;
        const size_t end = mBlocks * kBlock;
        std::memset(mOwn.data() + size, 0, end - size);
        mOwn[size] = 0x80;
        std::memcpy(mOwn.data() + end - sizeof bits, &bits, sizeof bits);
        mIsPadded = true;
    }

    const FrameView& mFrame;
    int mPlane = 0, mY = 0;                  // what is read next
    size_t mX = 0;                           // in bytes
    std::array<uint8_t, 2 * kBlock> mOwn{};  // blocks that are in no row
    bool mIsPadded = false;                  // the last ones are there
    const uint8_t* mAt = nullptr;
    size_t mBlocks = 0;
};

// Those of at most kMd5Lanes frames.
std::vector<std::string> md5sOfGroup(const FrameView* const* frames, size_t count,
                                     Compress compressBlocks) {
    State state{};
    for (size_t w = 0; w < kWords; ++w) state[w].fill(kStart[w]);
    std::deque<Message> messages;  // not moved: they point into themselves
    for (size_t lane = 0; lane < count; ++lane) messages.emplace_back(*frames[lane]);
    std::vector<std::string> md5s(count);
    while (true) {
        size_t blocks = SIZE_MAX;
        std::array<const uint8_t*, kMd5Lanes> at{};
        const uint8_t* any = nullptr;
        for (size_t lane = 0; lane < count; ++lane) {
            if (messages[lane].blocks() == 0) continue;
            at[lane] = any = messages[lane].at();
            blocks = std::min(blocks, messages[lane].blocks());
        }
        if (any == nullptr) return md5s;
        // A lane that has nothing more to do repeats what another does.
        std::replace(at.begin(), at.end(), static_cast<const uint8_t*>(nullptr), any);
        compressBlocks(&state, at.data(), blocks);
        for (size_t lane = 0; lane < count; ++lane) {
            if (messages[lane].blocks() == 0) continue;
            messages[lane].skip(blocks);
            if (messages[lane].blocks() > 0) continue;
            uint8_t digest[4 * kWords];
            for (size_t w = 0; w < kWords; ++w) std::memcpy(digest + 4 * w, &state[w][lane], 4);
            md5s[lane] = hexOfMd5(digest);
        }
    }
}

}  // namespace

std::vector<InstructionSet> instructionSets() {
    std::vector<InstructionSet> sets = {InstructionSet::BASE};
#ifdef __x86_64__
    if (__builtin_cpu_supports("avx2") != 0) sets.push_back(InstructionSet::AVX2);
    if (__builtin_cpu_supports("avx512vl") != 0) sets.push_back(InstructionSet::AVX512);
#endif
    return sets;
}

std::vector<std::string> md5sOf(const std::vector<const FrameView*>& frames) {
    return md5sOf(frames, instructionSets().back());
}

std::vector<std::string> md5sOf(const std::vector<const FrameView*>& frames, InstructionSet set) {
    constexpr size_t kWorthwhile = 3;  // frames: fewer are faster one by one
    std::vector<std::string> md5s;
    for (size_t first = 0; first < frames.size(); first += kMd5Lanes) {
        const size_t count = std::min(kMd5Lanes, frames.size() - first);
        if (count >= kWorthwhile) {
            for (auto& md5 : md5sOfGroup(&frames[first], count, compressOf(set))) {
                md5s.push_back(std::move(md5));
            }
        } else {
            for (size_t i = first; i < first + count; ++i) md5s.push_back(md5Of(*frames[i]));
        }
    }
    return md5s;
}

}  // namespace vxrun
