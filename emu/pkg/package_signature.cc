#include "emu/pkg/package_signature.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>
#include <vector>

namespace orv::emu {

namespace {

constexpr unsigned char kGzipId1 = 0x1f;
constexpr unsigned char kGzipId2 = 0x8b;
constexpr size_t kFixedHeader = 10;
constexpr unsigned char kFlagHcrc = 0x02;
constexpr unsigned char kFlagExtra = 0x04;
constexpr unsigned char kFlagName = 0x08;
constexpr unsigned char kFlagComment = 0x10;
constexpr size_t kFlagOffset = 3;

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using ContextPtr = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

KeyPtr ReadKey(const std::string& pem, bool isPrivate) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    EVP_PKEY* key = nullptr;
    if (bio != nullptr) {
        key = isPrivate ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr)
                        : PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr);
    }
    return KeyPtr(key, EVP_PKEY_free);
}

std::string ToHex(const std::vector<unsigned char>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char b : bytes) {
        hex += kDigits[b >> 4];
        hex += kDigits[b & 0xf];
    }
    return hex;
}

bool FromHex(const std::string& hex, std::vector<unsigned char>* bytes) {
    if (hex.size() % 2 != 0) {
        return false;
    }
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        return -1;
    };
    bytes->clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        int high = nibble(hex[i]);
        int low = nibble(hex[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes->push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return true;
}

// Offset just past the zero-terminated field starting at `pos`, or npos.
size_t SkipString(const std::string& data, size_t pos) {
    size_t end = data.find('\0', pos);
    return end == std::string::npos ? std::string::npos : end + 1;
}

}  // namespace

bool ParseGzipHeader(const std::string& data, size_t* bodyOffset, std::string* comment,
                     size_t* commentOffset) {
    if (data.size() < kFixedHeader || static_cast<unsigned char>(data[0]) != kGzipId1 ||
        static_cast<unsigned char>(data[1]) != kGzipId2) {
        return false;
    }
    unsigned char flags = static_cast<unsigned char>(data[kFlagOffset]);
    size_t pos = kFixedHeader;
    comment->clear();
    if (flags & kFlagExtra) {
        if (pos + 2 > data.size()) {
            return false;
        }
        size_t length = static_cast<unsigned char>(data[pos]) |
                        (static_cast<unsigned char>(data[pos + 1]) << 8);
        pos += 2 + length;
    }
    if ((flags & kFlagName) && (pos = SkipString(data, pos)) == std::string::npos) {
        return false;
    }
    size_t commentStart = pos;
    if (flags & kFlagComment) {
        size_t end = SkipString(data, pos);
        if (end == std::string::npos) {
            return false;
        }
        comment->assign(data, pos, end - pos - 1);
        pos = end;
    }
    if (flags & kFlagHcrc) {
        pos += 2;
    }
    if (pos > data.size()) {
        return false;
    }
    *bodyOffset = pos;
    if (commentOffset != nullptr) {
        *commentOffset = (flags & kFlagComment) ? commentStart : pos;
    }
    return true;
}

std::string SignPackage(const std::string& gzip, const std::string& privateKeyPem) {
    size_t body = 0;
    std::string comment;
    if (!ParseGzipHeader(gzip, &body, &comment) || !comment.empty() ||
        (static_cast<unsigned char>(gzip[kFlagOffset]) & kFlagHcrc) != 0) {
        return std::string();
    }
    KeyPtr key = ReadKey(privateKeyPem, true);
    ContextPtr context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (key == nullptr || context == nullptr ||
        EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1) {
        return std::string();
    }
    size_t length = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(gzip.data());
    if (EVP_DigestSign(context.get(), nullptr, &length, data, gzip.size()) != 1) {
        return std::string();
    }
    std::vector<unsigned char> signature(length);
    if (EVP_DigestSign(context.get(), signature.data(), &length, data, gzip.size()) != 1) {
        return std::string();
    }
    signature.resize(length);
    // The comment goes right before the compressed data, after any name.
    std::string signedPackage =
        gzip.substr(0, body) + kSignaturePrefix + ToHex(signature) + '\0' + gzip.substr(body);
    signedPackage[kFlagOffset] =
        static_cast<char>(static_cast<unsigned char>(gzip[kFlagOffset]) | kFlagComment);
    return signedPackage;
}

bool VerifyPackage(const std::string& package, const std::string& publicKeyPem) {
    size_t body = 0;
    size_t commentStart = 0;
    std::string comment;
    const std::string prefix = kSignaturePrefix;
    if (!ParseGzipHeader(package, &body, &comment, &commentStart) ||
        comment.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    std::vector<unsigned char> signature;
    if (!FromHex(comment.substr(prefix.size()), &signature)) {
        return false;
    }
    KeyPtr key = ReadKey(publicKeyPem, false);
    ContextPtr context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (key == nullptr || context == nullptr ||
        EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1) {
        return false;
    }
    // The package as it was signed: without the comment field and its flag.
    std::string original = package.substr(0, commentStart);
    original[kFlagOffset] =
        static_cast<char>(static_cast<unsigned char>(original[kFlagOffset]) & ~kFlagComment);
    original.append(package, body, std::string::npos);
    const auto* data = reinterpret_cast<const unsigned char*>(original.data());
    return EVP_DigestVerify(context.get(), signature.data(), signature.size(), data,
                            original.size()) == 1;
}

}  // namespace orv::emu
