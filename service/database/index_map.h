// The index map files: one for each group, its ranges in chain order, for the clients.
// Any thread; the register database lock is held.
#pragma once

#include <cstdint>

#include "database/database_lock.h"
#include "state/paths.h"
#include "voq/index_record.h"

// The path of the map file of an index entry's group.
class MapPath
{
public:
    explicit MapPath(const IndexItem& item);
    [[nodiscard]] bool Fits() const { return fits_; }  // false: there is no path
    [[nodiscard]] const char* Text() const { return text_; }

private:
    char text_[PathBytes + MapNameBytes];
    bool fits_;
};

// Rewrites one group's map file. Returns the number of map records, 0 on failure. Before the index says so, the caller
// sees to a new file's name being on the disk.
std::uint32_t RefrashIndexMap(IndexItem item) VOQ_REQUIRES(DatabaseLock);
