// Emulated image verification library (/usr/lib64/libvelkan_imgverify.so on
// the emulated card): checks a package's signature by the emulated vendor key.
#include <fcntl.h>
#include <img_verify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "card.pb.h"
#include "emu/driver/card_client.h"
#include "emu/pkg/package_signature.h"
#include "platform/orv_limits.h"
#include "vendor_public_key.h"

extern "C" int32_t halVerifyImg(uint32_t /*imageType*/, uint32_t /*keyType*/, const char* path,
                                uint32_t /*flags*/) {
    if (path == nullptr) {
        return 1;
    }
    // Close-on-exec: this runs inside the daemon, whose sub-processes must
    // not inherit it.
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat st {};
    // A fault injected for this call is the card's answer; a card that cannot
    // be reached (a test without one) leaves the check to the key alone. The
    // card learns the size here: the path may name one of the caller's own
    // descriptors, which means nothing to the card.
    orv::emu::CardRequest request;
    request.mutable_hal_verify_img()->set_path(path);
    if (fd >= 0 && fstat(fd, &st) == 0) {
        request.mutable_hal_verify_img()->set_size(static_cast<uint64_t>(st.st_size));
    }
    orv::emu::CardReply reply;
    drvError_t code = orv::emu::CardClient::Instance().Call(request, &reply);
    if (code != DRV_ERROR_NONE && reply.code() == code) {
        if (fd >= 0) {
            close(fd);
        }
        return code;
    }
    if (fd < 0) {
        return 2;
    }
    // Read whole to be checked: nothing longer than a package may be.
    if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > orv::limits::kMaxPackageBytes) {
        close(fd);
        return 4;
    }
    std::string content;
    char buffer[65536];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof(buffer))) > 0) {
        content.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    if (n < 0) {
        return 2;
    }
    return orv::emu::VerifyPackage(content, kVendorPublicKey) ? 0 : 3;
}
