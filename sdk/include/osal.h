// OS abstraction library of the card platform: the thin portable layer over
// sleeping, thread ids, dynamic loading and file-type tests.
#ifndef ORV_SDK_OSAL_H
#define ORV_SDK_OSAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define EN_OK 0
#define EN_ERR 1
#define EN_INVALID_PARAM 2

// Sleeps the calling thread for `milliSecond` ms. Returns EN_OK.
int32_t mmSleep(uint32_t milliSecond);

// Kernel thread id of the calling thread.
int32_t mmGetTid(void);

// dlopen/dlsym/dlclose; `mode` takes the dlopen flags (1 is lazy binding).
void* mmDlopen(const char* fileName, int32_t mode);
void* mmDlsym(void* handle, const char* funcName);
int32_t mmDlclose(void* handle);

// EN_OK when `fileName` names a directory, EN_ERR when it does not or cannot be
// examined, EN_INVALID_PARAM for a null name.
int32_t mmIsDir(const char* fileName);

#ifdef __cplusplus
}
#endif

#endif  // ORV_SDK_OSAL_H
