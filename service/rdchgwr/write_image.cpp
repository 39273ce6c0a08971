// The write that ends every change and pulse, on the main thread.
#include "rdchgwr/write_image.h"

#include "voq/rt_item.h"

int WriteImage(RegKey key, unsigned char* image, const DrvOps& ops, void (*failed)(int result))
{
    constexpr int Attempts = 3;
    int result = PLC_ERROR;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        result = ops.write(key, image);
        if (result == PLC_SUCCESS) return result;
        if (failed != nullptr) failed(result);
    }
    return result;
}
