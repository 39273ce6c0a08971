// The spool's file: rows of samples in their order, and the names that they use. An SQLite database. Everything throws
// DatabaseError; nothing is changed then. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "upstream/mqtt/database.h"

namespace voq::mqtt
{

// Samples side by side. `first` is the first one's place among all samples ever added.
struct SpoolRow {
    std::uint64_t first = 0, count = 0;
    std::string bytes;
    std::uint64_t End() const { return first + count; }
};

// One that is to be written.
struct RowView {
    std::uint64_t first, count;
    std::string_view bytes;
};

class SpoolFile
{
public:
    // Throws an Error that is no DatabaseError for a database that is no spool, or one of a newer version.
    SpoolFile(const std::string& file, std::uint64_t bytes);

    // How large a row should be at most: one that gives up little of its last page.
    static std::size_t RowBytes(std::uint64_t bytes);

    std::uint64_t Begin();  // of the oldest row; End without one
    std::uint64_t End();
    std::uint64_t Done();  // as written last
    std::vector<std::string> Names();

    // The row with this sample, or the next one there is.
    std::optional<SpoolRow> Find(std::uint64_t place);

    // One transaction: new names behind those that are there, rows behind those that are there, what is before `done`
    // no longer kept; the oldest rows go while there is no room. Returns the new Begin.
    std::uint64_t Write(std::span<const std::string> names, std::span<const RowView> rows, std::uint64_t done);

    std::uint64_t Bytes() const;  // of the disk

private:
    void MakeNew();
    void Shrink();
    void Strike(std::uint64_t done);
    void MakeRoom(std::uint64_t pages);
    std::uint64_t PagesFor(std::span<const std::string> names, std::span<const RowView> rows) const;

    std::string file_;
    std::unique_ptr<Database> database_;
    std::uint64_t page_ = 0, maxPages_ = 0;
};

// Out of the way as "<file>.bad", with what belongs to it.
void SetAside(const std::string& file);

}  // namespace voq::mqtt
