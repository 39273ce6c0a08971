// SQLite's calls.
#include "upstream/mqtt/database.h"

#include <system_error>

namespace voq::mqtt
{

Database::Database(const std::string& file) : file_(file)
{
    try {
        Check(sqlite3_open_v2(file.c_str(), &handle_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                              nullptr));
        if (sqlite3_db_readonly(handle_, "main") == 1)
            throw DatabaseError(file + " may not be written", SQLITE_READONLY);
        sqlite3_db_config(handle_, SQLITE_DBCONFIG_LOOKASIDE, nullptr, 0, 0);
    } catch (...) {
        sqlite3_close(handle_);
        throw;
    }
}

void Database::Check(int result)
{
    if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return;
    std::string text = file_ + ": " + (result == SQLITE_BUSY ? "another program uses it" : sqlite3_errmsg(handle_));
    const int number = sqlite3_system_errno(handle_);
    const bool told = result != SQLITE_BUSY && result != SQLITE_CORRUPT && result != SQLITE_NOTADB && number != 0;
    if (told) text += ": " + std::system_category().message(number);
    throw DatabaseError(text, result);
}

void Database::Run(const std::string& sql)
{
    Check(sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr));
}

std::int64_t Database::Number(const std::string& sql)
{
    Statement statement(*this, sql);
    return statement.Next() ? statement.Number(0) : 0;
}

Database::Statement::Statement(Database& of, std::string_view sql) : of_(of)
{
    of.Check(sqlite3_prepare_v2(of.handle_, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr));
}

Database::Statement& Database::Statement::Bind(int at, std::int64_t number)
{
    of_.Check(sqlite3_bind_int64(statement_, at, number));
    return *this;
}

Database::Statement& Database::Statement::Bind(int at, std::string_view bytes, bool text)
{
    const auto size = static_cast<int>(bytes.size());
    of_.Check(text ? sqlite3_bind_text(statement_, at, bytes.data(), size, SQLITE_STATIC)
                   : sqlite3_bind_blob(statement_, at, bytes.data(), size, SQLITE_STATIC));
    return *this;
}

bool Database::Statement::Next()
{
    const int result = sqlite3_step(statement_);
    of_.Check(result);
    return result == SQLITE_ROW;
}

std::string Database::Statement::Bytes(int column) const
{
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    return {bytes == nullptr ? "" : bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

}  // namespace voq::mqtt
