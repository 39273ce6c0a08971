// The file as a database with a write-ahead log: a transaction is one append to the log and one sync, and what several
// of them change alike goes to the database once. Samples lie in rows of several pages, whose pages but one are neither
// read nor written again when the row goes.
//
// Of `bytes`, a quarter is the log's: it is carried into the database at a sixteenth, and one transaction adds at most
// a sixteenth of samples, as many pages of removed rows, and a few pages more.
#include "upstream/mqtt/spool_file.h"

#include <algorithm>
#include <filesystem>

#include "upstream/mqtt/encoding.h"

namespace voq::mqtt
{

namespace
{

constexpr std::int64_t Identity = 0x766F7153;  // of the application, in the database's header
constexpr std::int64_t Version = 1;
constexpr std::uint64_t Large = 1u << 20;  // from here on pages as the disk has them; below, more of them
constexpr std::uint64_t FewPages = 8;      // of a transaction beside those of the rows

std::uint64_t PageBytes(std::uint64_t bytes)
{
    return bytes >= Large ? 4096 : 1024;
}

// What of a row that is larger than a page stays in the tree's own page.
std::uint64_t LocalBytes(std::uint64_t page)
{
    return (page - 12) * 32 / 255 - 23;
}

std::string Text(std::uint64_t number)
{
    return std::to_string(number);
}

std::int64_t Signed(std::uint64_t number)
{
    return static_cast<std::int64_t>(number);
}
std::uint64_t Unsigned(std::int64_t number)
{
    return static_cast<std::uint64_t>(number);
}

// Begun; undone unless it is committed.
class Transaction
{
public:
    explicit Transaction(Database& of) : of_(of) { of.Run("BEGIN IMMEDIATE"); }
    ~Transaction()
    {
        if (committed_) return;
        try {
            of_.Run("ROLLBACK");
        } catch (const DatabaseError&) {  // an error that ended it already
        }
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit()
    {
        of_.Run("COMMIT");
        committed_ = true;
    }

private:
    Database& of_;
    bool committed_ = false;
};

std::uint64_t SizeOf(const std::string& file)
{
    std::error_code none;
    const auto size = std::filesystem::file_size(file, none);
    return none ? 0 : size;
}

}  // namespace

std::size_t SpoolFile::RowBytes(std::uint64_t bytes)
{
    constexpr std::uint64_t pages = 8, columns = 24;  // the row's own numbers
    const std::uint64_t page = PageBytes(bytes), most = LocalBytes(page) + pages * (page - 4) - columns;
    return std::min(most, bytes / 32);
}

SpoolFile::SpoolFile(const std::string& file, std::uint64_t bytes)
    : file_(file), database_(std::make_unique<Database>(file))
{
    database_->Run("PRAGMA locking_mode=EXCLUSIVE; PRAGMA page_size=" + Text(PageBytes(bytes)) +
                   "; PRAGMA temp_store=MEMORY; PRAGMA cache_size=-256; PRAGMA synchronous=FULL");
    if (database_->Number("SELECT count(*) FROM sqlite_master") == 0) {
        MakeNew();
    } else if (database_->Number("PRAGMA application_id") != Identity) {
        throw Error(file + " is no spool");
    } else if (database_->Number("PRAGMA user_version") > Version) {
        throw Error(file + " is of a newer version");
    }
    database_->Run("PRAGMA journal_mode=WAL");
    page_ = Unsigned(database_->Number("PRAGMA page_size"));
    const std::uint64_t log = bytes / 16 / page_;
    database_->Run("PRAGMA wal_autocheckpoint=" + Text(log) + "; PRAGMA journal_size_limit=" + Text(bytes / 4));
    maxPages_ = (bytes - std::max(bytes / 4, 24 * page_)) / page_;
    Shrink();
    database_->Run("PRAGMA max_page_count=" + Text(maxPages_));
}

void SpoolFile::MakeNew()
{
    Transaction transaction(*database_);
    database_->Run("PRAGMA application_id=" + Text(Identity) + "; PRAGMA user_version=" + Text(Version) +
                   "; CREATE TABLE names(id INTEGER PRIMARY KEY, name TEXT NOT NULL);"
                   "CREATE TABLE samples(first INTEGER PRIMARY KEY, count INTEGER NOT NULL, sum INTEGER NOT NULL,"
                   " bytes BLOB NOT NULL);"
                   "CREATE TABLE state(done INTEGER NOT NULL);"
                   "INSERT INTO state VALUES(0)");
    transaction.Commit();
}

// To the settings, when they leave it less than it has. For once it takes twice its bytes.
void SpoolFile::Shrink()
{
    if (Unsigned(database_->Number("PRAGMA page_count")) <= maxPages_) return;
    Transaction transaction(*database_);
    MakeRoom(maxPages_ / 4);
    transaction.Commit();
    database_->Run("VACUUM");
}

std::uint64_t SpoolFile::Begin()
{
    const auto first = database_->Number("SELECT first FROM samples ORDER BY first LIMIT 1");
    return first == 0 ? End() : Unsigned(first);
}

std::uint64_t SpoolFile::End()
{
    const auto end = database_->Number("SELECT first + count FROM samples ORDER BY first DESC LIMIT 1");
    return end == 0 ? std::max<std::uint64_t>(Done(), 1) : Unsigned(end);
}

std::uint64_t SpoolFile::Done()
{
    return Unsigned(database_->Number("SELECT done FROM state"));
}

std::vector<std::string> SpoolFile::Names()
{
    std::vector<std::string> names;
    Database::Statement statement(*database_, "SELECT name FROM names ORDER BY id");
    while (statement.Next()) names.push_back(statement.Bytes(0));
    return names;
}

std::optional<SpoolRow> SpoolFile::Find(std::uint64_t place)
{
    for (const char* sql : {"SELECT first, count, sum, bytes FROM samples WHERE first <= ? ORDER BY first DESC LIMIT 1",
                            "SELECT first, count, sum, bytes FROM samples WHERE first > ? ORDER BY first LIMIT 1"}) {
        Database::Statement statement(*database_, sql);
        if (!statement.Bind(1, Signed(place)).Next()) continue;
        SpoolRow row{Unsigned(statement.Number(0)), Unsigned(statement.Number(1)), statement.Bytes(3)};
        if (row.End() <= place) continue;
        // A damaged row has nothing to tell.
        if (Checksum(row.bytes) != Unsigned(statement.Number(2))) row.bytes.clear();
        return row;
    }
    return std::nullopt;
}

std::uint64_t SpoolFile::Write(std::span<const std::string> names, std::span<const RowView> rows, std::uint64_t done)
{
    Transaction transaction(*database_);
    Strike(done);
    MakeRoom(PagesFor(names, rows));
    for (const std::string& name : names) {
        Database::Statement(*database_, "INSERT INTO names(name) VALUES(?)").Bind(1, name, true).Next();
    }
    for (const RowView& row : rows) {
        Database::Statement statement(*database_, "INSERT INTO samples VALUES(?, ?, ?, ?)");
        statement.Bind(1, Signed(row.first)).Bind(2, Signed(row.count)).Bind(3, Checksum(row.bytes));
        statement.Bind(4, row.bytes, false).Next();
    }
    const std::uint64_t begin = Begin();
    transaction.Commit();
    return begin;
}

void SpoolFile::Strike(std::uint64_t done)
{
    if (done == Done()) return;
    Database::Statement(*database_, "UPDATE state SET done = ?").Bind(1, Signed(done)).Next();
    if (done >= End()) return database_->Run("DELETE FROM samples");  // as a whole: its pages are not touched
    Database::Statement(*database_,
                        "DELETE FROM samples WHERE first IN (SELECT first FROM samples WHERE first < (SELECT max(first)"
                        " FROM samples WHERE first <= ?) ORDER BY first LIMIT ?)")
        .Bind(1, Signed(done))
        .Bind(2, Signed(std::max<std::uint64_t>(maxPages_ / 16, 2)))
        .Next();
}

std::uint64_t SpoolFile::PagesFor(std::span<const std::string> names, std::span<const RowView> rows) const
{
    std::uint64_t bytes = 0, pages = FewPages + 2 * rows.size();
    for (const std::string& name : names) bytes += name.size() + 8;
    for (const RowView& row : rows) pages += row.bytes.size() / (page_ - 4);
    return pages + bytes / (page_ - 64);
}

void SpoolFile::MakeRoom(std::uint64_t pages)
{
    const auto used = [&] {
        return Unsigned(database_->Number("PRAGMA page_count") - database_->Number("PRAGMA freelist_count"));
    };
    while (used() + pages > maxPages_ && database_->Number("SELECT first FROM samples LIMIT 1") != 0) {
        database_->Run("DELETE FROM samples WHERE first = (SELECT min(first) FROM samples)");
    }
}

std::uint64_t SpoolFile::Bytes() const
{
    return SizeOf(file_) + SizeOf(file_ + "-wal");
}

void SetAside(const std::string& file)
{
    namespace fs = std::filesystem;
    std::error_code none;
    for (const char* part : {"-wal", "-journal"}) {
        fs::remove(file + ".bad" + part, none);
        fs::rename(file + part, file + ".bad" + part, none);
    }
    fs::rename(file, file + ".bad", none);
    if (none) throw SystemError(file + " cannot be moved aside", none.value());
}

}  // namespace voq::mqtt
