// What driver libraries say of themselves. Opens libraries of the given directories only; a library stays open. Main
// thread, or one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "voq/plc_driver.h"

namespace voq
{

// Searched in order.
using DriverDirs = std::vector<std::string>;

// $VOQ_DRIVERS if it is set; else "drivers" beside the directory of the program, as a build tree has it, and
// /usr/lib/voq/drivers.
DriverDirs StandardDriverDirs();

struct DriverAnswer {
    const PlcDriverInfo* info = nullptr;
    std::string why;  // why there is none: "there is no modbus.so in A or B (there is sim)"
};

// `name` is that of a library without ".so": letters, digits, "_" and "-".
DriverAnswer AskDriver(const std::string& name, const DriverDirs& dirs);

// Why the driver refuses the range; empty when it does not.
std::string WhyRefused(const PlcDriverInfo& driver, const RegKey& key);

}  // namespace voq
