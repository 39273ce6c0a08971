// A register database in a folder of its own, the bytes of its files, and what must hold between them.
#pragma once

#include <gtest/gtest.h>

#include <map>

#include "client/database.h"
#include "list/log_on_off.h"
#include "support/capture.h"
#include "support/file_tap.h"
#include "support/scratch.h"

using Files = std::map<std::string, std::string>;  // content by name in the database folder
Files LoadFiles(const std::string& folder);
// Leaves nothing else there.
void StoreFiles(const std::string& folder, const Files& files);

class DatabaseTest : public testing::Test
{
protected:
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

// What the work writes and syncs: "file@offset+bytes " for a write, "file! " for a sync, ".! " for the folder's.
std::string ChangesOf(const std::function<void()>& work);

// The records in chain order, as a client reads them.
std::vector<voq::OrgRecord> Records(const std::string& org);
// What the client library's check has against a database, empty when sound.
std::string Unsound(const Files& files);

RegKey Key(unsigned plcno, unsigned layout, std::uint32_t addr, unsigned width, std::uint32_t subaddr = 0);
// A log-on, a log-off, or a registration that subscribes nothing.
int Request(const RegKey& key, OrgMode mode);
// A log-on that must succeed.
void LogOn(const RegKey& key);
