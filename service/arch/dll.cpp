// Shared libraries, on the main thread during start-up.
#include "arch/dll.h"

#include <dlfcn.h>

#include <cstdio>

void* loadDll(const char* path)
{
    char file[256];
    std::snprintf(file, sizeof file, "%s.so", path);
    dlerror();
    void* handle = dlopen(file, RTLD_NOW);
    if (handle == nullptr) {
        const char* error = dlerror();
        if (error != nullptr) std::printf("*VOQ*dlopen(%s) error(%s)\r\n", path, error);
    }
    return handle;
}

void* getDllApi(void* handle, const char* symbol)
{
    dlerror();
    void* address = dlsym(handle, symbol);
    const char* error = dlerror();
    if (error != nullptr) std::printf("*VOQ*dlsym(%s) error(%s)\r\n", symbol, error);
    return address;
}

void rmvDll(void* handle)
{
    dlclose(handle);
}
