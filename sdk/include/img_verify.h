// Image verification library of the card platform
// (/usr/lib64/libvelkan_imgverify.so), looked up at run time.
#ifndef ORV_SDK_IMG_VERIFY_H
#define ORV_SDK_IMG_VERIFY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define IMG_VERIFY_LIBRARY "/usr/lib64/libvelkan_imgverify.so"
#define IMG_VERIFY_SYMBOL "halVerifyImg"

// Verifies the signed image at `path`; 0 when its signature holds.
// `imageType` and `keyType` select what is verified and with which key; `flags`
// asks for a full check when 1.
typedef int32_t (*HalVerifyImgFunc)(uint32_t imageType, uint32_t keyType, const char* path,
                                    uint32_t flags);

int32_t halVerifyImg(uint32_t imageType, uint32_t keyType, const char* path, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif  // ORV_SDK_IMG_VERIFY_H
