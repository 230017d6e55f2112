#include "Md5.h"

#include "Text.h"

namespace vxrun {

// Whether `word`, in lower case, was meant to be a hash: half an MD5 or more in hexadecimal, but
// for a damaged character or two. A number, which has no letters, was not.
static bool looksLikeHash(const std::string& word) {
    size_t digits = 0, letters = 0, others = 0;
    for (const char c : word) {
        ++(c >= '0' && c <= '9' ? digits : c >= 'a' && c <= 'f' ? letters : others);
    }
    return digits > 0 && letters > 0 && digits + letters + others >= kMd5Digits / 2 &&
           others <= 2 && (others == 0 || word.size() >= kMd5Digits - 4);
}

const char kMd5OfNothing[] = "d41d8cd98f00b204e9800998ecf8427e";

Md5::Md5() : mState(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    if (EVP_DigestInit_ex(mState.get(), EVP_md5(), nullptr) != 1) {
        throw Failure("libcrypto has no MD5 here");
    }
}

void Md5::addFrame(const FrameView& frame) {
    frame.forEachRow(
        [&](const uint8_t* row, size_t bytes) { EVP_DigestUpdate(mState.get(), row, bytes); });
}

std::string Md5::hex() {
    uint8_t digest[kMd5Digits / 2];
    EVP_DigestFinal_ex(mState.get(), digest, nullptr);
    return hexOfMd5(digest);
}

std::string hexOfMd5(const uint8_t* digest) {
    std::ostringstream hex;
    for (size_t i = 0; i < kMd5Digits / 2; ++i) {
        hex << std::hex << std::setfill('0') << std::setw(2) << unsigned{digest[i]};
    }
    return hex.str();
}

std::string md5Of(const FrameView& frame) {
    Md5 md5;
    md5.addFrame(frame);
    return md5.hex();
}

bool isMd5(const std::string& word) {
    return word.size() / 2 == kMd5Digits / 2 &&
           word.find_first_not_of("0123456789abcdef") == word.npos;
}

std::string findMd5(const std::string& line) {
    std::string found, word;
    for (const char c : lowerCase(line) + " ") {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
            word += c;
            continue;
        }
        if (isMd5(word)) {
            if (!found.empty()) throw Failure("more than one MD5 in the line " + quote(line));
            found = word;
        } else if (looksLikeHash(word)) {
            throw Failure("expected an MD5 of 32 digits, got " + quote(word));
        }
        word.clear();
    }
    return found;
}

}  // namespace vxrun
