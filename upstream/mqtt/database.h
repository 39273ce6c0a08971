// What is needed of SQLite: statements that end with their scope, errors as exceptions. One thread.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "client/error.h"

namespace voq::mqtt
{

class DatabaseError : public Error
{
public:
    DatabaseError(const std::string& text, int code) : Error(text), code_(code & 0xFF) {}
    // The file's bytes are none of a database, or damaged.
    bool Damaged() const { return code_ == SQLITE_CORRUPT || code_ == SQLITE_NOTADB; }

private:
    int code_;
};

class Database
{
public:
    explicit Database(const std::string& file);
    ~Database() { sqlite3_close(handle_); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void Run(const std::string& sql);
    // The first number of the first row; 0 without one.
    std::int64_t Number(const std::string& sql);

    class Statement
    {
    public:
        Statement(Database& of, std::string_view sql);
        ~Statement() { sqlite3_finalize(statement_); }
        Statement(const Statement&) = delete;
        Statement& operator=(const Statement&) = delete;

        Statement& Bind(int at, std::int64_t number);
        Statement& Bind(int at, std::string_view bytes, bool text);  // bytes live until Next
        bool Next();                                                 // a row
        std::int64_t Number(int column) const { return sqlite3_column_int64(statement_, column); }
        std::string Bytes(int column) const;

    private:
        Database& of_;
        sqlite3_stmt* statement_ = nullptr;
    };

private:
    void Check(int result);

    std::string file_;
    sqlite3* handle_ = nullptr;
};

}  // namespace voq::mqtt
