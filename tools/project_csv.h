// Tables of registers: CSV, and descriptions made of it. Pure.
#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "client/description/description.h"

struct CsvRow {
    std::size_t line;  // at which it begins, the first is 1
    std::vector<std::string> cells;
};

struct CsvTable {
    char separator = ',';
    std::vector<CsvRow> rows;  // the header first; empty lines are left out
};

// Cells separated by commas, semicolons or tabs, whichever the first line has most of; in double quotes, where they
// hold such, quotes doubled. Throws voq::Error "<file>:<line>: <text>" for quotes without an end.
CsvTable ParseCsv(const std::string& text, const std::string& file);
std::string CsvCell(const std::string& text);

enum class CsvAddresses { Plain, Manual, Hex };

// [[block]] tables of the registers, with line numbers of the table for each of their own lines.
struct CsvToml {
    std::string text;
    std::vector<std::size_t> lines;    // of the table, by line of `text`
    std::vector<std::string> unknown;  // columns that nothing was taken from
    std::set<std::string> ports;       // numbers that the table names
};

// What is wrong goes to `remarks`, by line of the table.
// `tell` (may be empty) hears how many rows of how many.
using TellRows = std::function<void(std::size_t, std::size_t)>;
CsvToml TomlOfCsv(const CsvTable& table, CsvAddresses addresses, voq::Remarks& remarks, const TellRows& tell = {});

// The registers as a table that TomlOfCsv takes; columns that nobody needs are left out.
std::string CsvOfDescription(const voq::Description& description);
