// A register database in a folder of its own, the bytes of its files, and what must hold between them.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "list/log_on_off.h"
#include "support/capture.h"
#include "support/file_tap.h"
#include "support/scratch.h"

// How many changes reached a file since the last reset, and what they were.
struct WriteGate {
    int made = 0;
    std::string* trace = nullptr;  // takes "file@offset+bytes " for a write, "file! " for a sync, "." for the folder
};
extern WriteGate Gate;
std::size_t PassGate(const FileChange& change);

using Files = std::map<std::string, std::string>;  // content by name in the database folder
Files LoadFiles(const std::string& folder);
// Leaves nothing else there.
void StoreFiles(const std::string& folder, const Files& files);

class ListTest : public testing::Test
{
protected:
    ListTest()
    {
        Gate = {};
        Tap = PassGate;
    }
    [[nodiscard]] Files Load() const { return LoadFiles(scratch.Folder()); }
    void Store(const Files& files) const { StoreFiles(scratch.Folder(), files); }

    Scratch scratch;
};

template <typename Value = std::uint32_t>
Value Word(const std::string& bytes, std::size_t at)
{
    Value value{};
    if (bytes.size() >= at + sizeof value) std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}
inline void SetWord(std::string& bytes, std::size_t at, std::uint32_t value)
{
    bytes.replace(at, 4, reinterpret_cast<const char*>(&value), 4);
}

inline auto Identity(const RegKey& key)
{
    return std::tuple(key.plcno, key.regid, key.layout, key.subaddr & 0xFFFF, key.flag >> 9 & 1);
}
inline auto Order(const RegKey& key)
{
    return std::tuple(key.addr, key.width);
}
inline std::uint32_t RegionBytes(const RegKey& key)
{
    return key.width * std::max(1u, key.layout & 15u);
}

// A range's record, and what the files say of a group, built from nothing but the documented layouts.
struct Row {
    RegKey key;
    std::uint16_t logtimes;
    std::uint32_t offset, dataoffset;
};
using Run = std::vector<Row>;
std::string MapName(const RegKey& key);
std::string MapBytes(const Run& run);
std::string IndexBytes(const Run& run, std::size_t mapcount);

// Reads the chain into groups. `fault` tells what is wrong with links, order or header.
std::vector<Run> ReadChain(const std::string& org, std::string& fault);
// What is wrong with a database: chain, groups, index, maps and regions; empty when sound.
std::string Unsound(const Files& files);

RegKey Key(unsigned plcno, unsigned layout, std::uint32_t addr, unsigned width, std::uint32_t subaddr = 0,
           std::uint32_t flag = 0);
// A log-on, a log-off, or a registration that subscribes nothing; returns what it printed.
std::string Request(const RegKey& key, OrgMode mode, int result = 0, std::uint16_t fileno = 7);
inline void LogOn(const RegKey& key)
{
    Request(key, OrgMode::LogOn);
}
