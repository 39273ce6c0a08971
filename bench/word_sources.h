// The two places that the benchmarks read from: a driver library, called as the service calls it, and a Modbus TCP PLC
// over bare libmodbus.
#pragma once

#include <dlfcn.h>
#include <modbus/modbus.h>

#include "bare_polling.h"
#include "voq/plc_driver.h"

inline constexpr std::uint16_t HoldingRegisters = 4;

inline RegKey BenchKey(std::uint32_t addr)
{
    return {1u << REG_FLAG_PRIORITY_SHIFT, 0, 1, 1, 0x22, HoldingRegisters, 1, addr, 0};
}

inline PlcDrvCmdFn LoadDriver(const char* path)
{
    void* library = dlopen(path, RTLD_NOW);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(2);
    }
    return reinterpret_cast<PlcDrvCmdFn>(dlsym(library, PLC_DRV_ENTRY));
}

class DriverSource final : public WordSource
{
public:
    explicit DriverSource(PlcDrvCmdFn driver) : driver_(driver)
    {
        void* args[] = {&info_, nullptr};
        if (driver_("Init", &instance_, args) != PLC_DRV_OK) Fail("driver");
    }
    void Read(std::uint32_t addr, std::uint16_t count, unsigned char* values) override
    {
        RegKey key = BenchKey(addr);
        key.width = count;
        PlcRequest request = {&key, 2 * count, values};
        void* args[] = {&request, &info_, nullptr};
        if (driver_("RdOne", instance_, args) != PLC_DRV_OK) Fail("driver");
    }

private:
    PlcDrvCmdFn driver_;
    ComInfoRecord info_{};
    void* instance_ = nullptr;
};

class ModbusSource final : public WordSource
{
public:
    explicit ModbusSource(int port) : modbus_(modbus_new_tcp("127.0.0.1", port))
    {
        if (modbus_ == nullptr || modbus_set_slave(modbus_, 1) != 0 || modbus_connect(modbus_) != 0) Fail("PLC");
    }
    ~ModbusSource() override { modbus_free(modbus_); }
    void Read(std::uint32_t addr, std::uint16_t count, unsigned char* values) override
    {
        std::uint16_t words[125];
        if (modbus_read_registers(modbus_, static_cast<int>(addr), count, words) != count) Fail("PLC");
        for (int i = 0; i < count; ++i) {
            values[2 * i] = static_cast<unsigned char>(words[i] >> 8);
            values[2 * i + 1] = static_cast<unsigned char>(words[i]);
        }
    }

private:
    modbus_t* modbus_;
};
