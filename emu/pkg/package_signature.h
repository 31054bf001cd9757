// Signatures of kernel packages on the emulated card.
//
// A package is a gzip-compressed tar archive. Its signature, an Ed25519
// signature by the emulated vendor key over the whole package as it was before
// signing, travels in the header's comment field ("orv-signature:<hex>"), so
// that the signed package is still a valid .tar.gz that tar unpacks as it is.
// Verifying takes the comment out again (and its flag) and checks the rest:
// every byte but the signature's own is covered, the header's included.
#ifndef ORV_EMU_PKG_PACKAGE_SIGNATURE_H
#define ORV_EMU_PKG_PACKAGE_SIGNATURE_H

#include <string>

namespace orv::emu {

inline constexpr char kSignaturePrefix[] = "orv-signature:";

// Finds where a gzip member's compressed data begins, and its comment (empty
// when there is none) and where the comment field begins (the body's offset
// when there is none). False when `data` does not start with a whole gzip header.
bool ParseGzipHeader(const std::string& data, size_t* bodyOffset, std::string* comment,
                     size_t* commentOffset = nullptr);

// Signs `gzip` with the private key (PEM) and returns it with the signature
// in its header's comment. Empty on failure.
std::string SignPackage(const std::string& gzip, const std::string& privateKeyPem);

// True when `package` carries a signature by the public key (PEM) over all of
// its other bytes.
bool VerifyPackage(const std::string& package, const std::string& publicKeyPem);

}  // namespace orv::emu

#endif  // ORV_EMU_PKG_PACKAGE_SIGNATURE_H
