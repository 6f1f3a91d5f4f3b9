#include "platform/secret.h"

namespace tavik::platform {

void wipeSecret(void* data, size_t size) {
    volatile unsigned char* p = static_cast<volatile unsigned char*>(data);
    while (size--) *p++ = 0;
}

}  // namespace tavik::platform
