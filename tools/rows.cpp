// Writes rows as JSON and CSV. Main thread. Texts come through Printable first, so that no control character and no
// broken UTF-8 is left to be escaped here.
#include "tools/rows.h"

#include <cstdio>
#include <ctime>

#include "tools/printable.h"

namespace
{

std::string JsonString(std::string_view text)
{
    std::string quoted = "\"";
    for (const char c : Printable(text)) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

std::string JsonCell(const Cell& cell)
{
    if (cell.kind == Cell::Kind::Nothing) return "null";
    if (cell.kind == Cell::Kind::Literal) return cell.text;
    if (cell.kind == Cell::Kind::Text) return JsonString(cell.text);
    std::string list = "[";
    for (const Cell& element : cell.list) list += (list.size() == 1 ? "" : ",") + JsonCell(element);
    return list + "]";
}

// The elements of a list separated by spaces.
std::string PlainCell(const Cell& cell)
{
    if (cell.kind != Cell::Kind::List) return Printable(cell.text);
    std::string list;
    for (const Cell& element : cell.list) list += (list.empty() ? "" : " ") + PlainCell(element);
    return list;
}

std::string CsvField(const std::string& text)
{
    const bool bordered = !text.empty() && (text.front() == ' ' || text.back() == ' ');
    if (!bordered && text.find_first_of(",\"") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

}  // namespace

Cell Cell::Seconds(std::int64_t microseconds)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(microseconds) / 1e6);
    return {Kind::Literal, text};
}

std::string JsonText(const Row& row)
{
    std::string text = "{";
    for (const auto& [name, cell] : row) {
        text += (text.size() == 1 ? "" : ",") + JsonString(name) + ":" + JsonCell(cell);
    }
    return text + "}";
}

std::string CsvText(const Row& row)
{
    std::string text;
    for (std::size_t i = 0; i < row.size(); ++i) text += (i == 0 ? "" : ",") + CsvField(PlainCell(row[i].second));
    return text;
}

void RowWriter::Write(const Row& row)
{
    if (form_ == RowForm::Csv && first_) {
        Row names;
        for (const auto& [name, cell] : row) names.emplace_back(name, Cell::Text(std::string(name)));
        std::printf("%s\n", CsvText(names).c_str());
    }
    first_ = false;
    std::printf("%s\n", (form_ == RowForm::Csv ? CsvText(row) : JsonText(row)).c_str());
}

std::string IsoTime(std::int64_t microseconds, int decimals)
{
    constexpr std::int64_t Second = 1000000;
    std::int64_t fraction = microseconds % Second;
    if (fraction < 0) fraction += Second;
    const std::time_t seconds = (microseconds - fraction) / Second;
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    const long long shown = decimals == 6 ? fraction : fraction / 1000;
    std::snprintf(text + length, sizeof text - length, ".%0*lldZ", decimals == 6 ? 6 : 3, shown);
    return text;
}
