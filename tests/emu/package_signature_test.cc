// Signatures of the emulated card's kernel packages: what the card's image
// verification accepts, and that no byte of a signed package can change
// unnoticed.
#include "emu/pkg/package_signature.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>
#include <string>

namespace orv::emu {
namespace {

struct KeyPair {
    std::string privatePem;
    std::string publicPem;
};

std::string ReadBio(BIO* bio) {
    char* data = nullptr;
    long length = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(length));
}

KeyPair NewKeyPair() {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
    std::unique_ptr<BIO, decltype(&BIO_free)> priv(BIO_new(BIO_s_mem()), BIO_free);
    std::unique_ptr<BIO, decltype(&BIO_free)> pub(BIO_new(BIO_s_mem()), BIO_free);
    KeyPair pair;
    if (key != nullptr &&
        PEM_write_bio_PrivateKey(priv.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) ==
            1 &&
        PEM_write_bio_PUBKEY(pub.get(), key.get()) == 1) {
        pair.privatePem = ReadBio(priv.get());
        pair.publicPem = ReadBio(pub.get());
    }
    return pair;
}

// A gzip member as far as the header goes: magic, method, FNAME, mtime, extra
// flags, OS, the name; then stand-in compressed data and trailer.
std::string Gzip() {
    std::string gzip = {'\x1f', '\x8b', '\x08', '\x08', '\x11',
                        '\x22', '\x33', '\x44', '\x00', '\x03'};
    gzip += std::string("kernels.tar") + '\0';
    for (int i = 0; i < 64; ++i) {
        gzip += static_cast<char>(i * 7);
    }
    return gzip;
}

TEST(PackageSignatureTest, ASignedPackageKeepsItsHeaderAndVerifiesByItsKeyAlone) {
    KeyPair vendor = NewKeyPair();
    KeyPair other = NewKeyPair();
    ASSERT_FALSE(vendor.privatePem.empty());
    std::string gzip = Gzip();
    std::string signedPackage = SignPackage(gzip, vendor.privatePem);
    ASSERT_FALSE(signedPackage.empty());

    size_t body = 0;
    std::string comment;
    ASSERT_TRUE(ParseGzipHeader(signedPackage, &body, &comment));
    EXPECT_EQ(comment.compare(0, std::string(kSignaturePrefix).size(), kSignaturePrefix), 0);
    EXPECT_EQ(signedPackage.substr(body), gzip.substr(gzip.size() - 64))
        << "the compressed data is untouched";

    EXPECT_TRUE(VerifyPackage(signedPackage, vendor.publicPem));
    EXPECT_FALSE(VerifyPackage(signedPackage, other.publicPem));
    EXPECT_FALSE(VerifyPackage(gzip, vendor.publicPem)) << "unsigned";
    EXPECT_FALSE(VerifyPackage(signedPackage.substr(0, signedPackage.size() - 1), vendor.publicPem))
        << "truncated";
    EXPECT_TRUE(SignPackage(signedPackage, vendor.privatePem).empty())
        << "a package is signed once";
}

TEST(PackageSignatureTest, EveryByteOfASignedPackageIsCovered) {
    KeyPair vendor = NewKeyPair();
    std::string signedPackage = SignPackage(Gzip(), vendor.privatePem);
    ASSERT_FALSE(signedPackage.empty());
    for (size_t i = 0; i < signedPackage.size(); ++i) {
        std::string tampered = signedPackage;
        tampered[i] = static_cast<char>(tampered[i] ^ 0x01);
        EXPECT_FALSE(VerifyPackage(tampered, vendor.publicPem))
            << "byte " << i << " changed unnoticed";
    }
}

}  // namespace
}  // namespace orv::emu
