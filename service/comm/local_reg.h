// The panel's own registers: plain files, one byte per bit or two bytes per word, no header. Register `a` lies at byte
// a x bytes per address; SRW and SRB addresses from 10000 on lie in a second file, less 10000.
//
// regid  register  bytes  created with    grows
// 253    RW        2      131070 bytes    yes
// 254    LB        1      65535 bytes     yes
// 255    LW        2      131070 bytes    yes
// 256    SRW       2      20000 bytes     no
// 257    SRB       1      10000 bytes     no
//
// Called by the driver from inside its commands. The local register lock holds the threads of the service apart, the
// whole-file locks the other processes.
#pragma once

#include <cstdint>

#include "arch/lock.h"
#include "voq/plc_driver.h"

// Guards the local register files inside the process; held for one access.
extern Mutex LocalRegLock;

inline constexpr std::uint32_t SRWFileBytes = 20000;

// The constant call-back table handed to the driver.
const UserOper* GetUserOper();

// Key of a local register by name: "LB", "RW", "SRW", anything else LW. Bit 0 of `bcd` marks a BCD value.
void MakeLocReg(RegKey* key, const char* name, std::uint32_t addr, std::uint16_t width, int bcd);

int LocalOperRead(const char* name, std::uint32_t addr, std::uint16_t width, void* buf, int bcd);
int LocalOperWrite(const char* name, std::uint32_t addr, std::uint16_t width, const void* data, int bcd);

// 1 done (also for a regid that is no local register: nothing is moved), 3 when the range is too large or the file
// cannot be opened; the buffer is then untouched.
int ReadLocal(const RegKey& key, void* buf) VOQ_EXCLUDES(LocalRegLock);
int WriteLocal(const RegKey& key, const void* data) VOQ_EXCLUDES(LocalRegLock);

// Makes SRWName with SRWFileBytes zeros, or leaves none behind. What is there meanwhile stays as it is.
void CreateSystemWords() VOQ_REQUIRES(LocalRegLock);
