// A loaded driver with one instance, called as the service calls it.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "voq/plc_driver.h"

using Bytes = std::vector<std::uint8_t>;

inline Bytes Join(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline void Pause(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

class Stopwatch
{
public:
    long Ms() const { return (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(1); }

private:
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

inline RegKey Key(std::uint8_t plcno, std::uint8_t layout, std::uint16_t regid, std::uint32_t addr, std::uint16_t width)
{
    return {0, 0, 1, plcno, layout, regid, width, addr, 0};
}

struct Driver {
    explicit Driver(const char* path) : library(dlopen(path, RTLD_NOW | RTLD_LOCAL))
    {
        if (library == nullptr) throw std::runtime_error(dlerror());
        entry = reinterpret_cast<PlcDrvCmdFn>(dlsym(library, PLC_DRV_ENTRY));
    }
    ~Driver()
    {
        Destroy();
        dlclose(library);
    }
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    void Para(std::uint16_t port, std::uint16_t timeoutMs)
    {
        const std::uint16_t para[] = {port, timeoutMs};
        memcpy(info.driverPara, para, sizeof para);
    }
    int Init() { return OnSlot("Init"); }
    int Destroy() { return OnSlot("Destroy"); }
    int OnSlot(const char* command)
    {
        void* args[] = {&info};
        return entry(command, &instance, args);
    }
    int Access(const char* command, RegKey key, std::uint8_t* data, std::size_t length)
    {
        PlcRequest request = {&key, static_cast<std::int32_t>(length), data};
        void* args[] = {&request, &info, nullptr};
        return entry(command, instance, args);
    }
    int Read(const RegKey& key, Bytes& data) { return Access("RdOne", key, data.data(), data.size()); }
    int Write(const RegKey& key, Bytes data) { return Access("WrOne", key, data.data(), data.size()); }

    void* library;
    PlcDrvCmdFn entry;
    void* instance = nullptr;
    ComInfoRecord info = {};
};
