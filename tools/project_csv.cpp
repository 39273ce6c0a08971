// CSV cells, and descriptions as a table. Pure.
#include "tools/project_csv.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>

#include "client/description/port_fields.h"
#include "client/error.h"

using voq::DescribedRegister;

namespace
{

// Whichever separator the header has most of.
char SeparatorOf(std::string_view text)
{
    const std::string_view header = text.substr(0, text.find('\n'));
    char best = ',';
    for (const char each : {',', ';', '\t'}) {
        if (std::count(header.begin(), header.end(), each) > std::count(header.begin(), header.end(), best))
            best = each;
    }
    return best;
}

class CsvReader
{
public:
    CsvReader(std::string_view text, const std::string& file) : text_(text), file_(file) {}

    CsvTable Run()
    {
        if (text_.starts_with("\xEF\xBB\xBF")) text_.remove_prefix(3);
        table_.separator = SeparatorOf(text_);
        while (at_ < text_.size()) Row();
        return std::move(table_);
    }

private:
    void Row()
    {
        CsvRow row{line_, {}};
        do {
            row.cells.push_back(at_ < text_.size() && text_[at_] == '"' ? Quoted() : Plain());
        } while (at_ < text_.size() && text_[at_++] == table_.separator);
        ++line_;
        if (row.cells.size() > 1 || !row.cells[0].empty()) table_.rows.push_back(std::move(row));
    }

    std::string Plain()
    {
        const std::size_t end = std::min(text_.find_first_of(std::string("\n") + table_.separator, at_), text_.size());
        std::string cell(text_.substr(at_, end - at_));
        at_ = end;
        cell.erase(0, std::min(cell.find_first_not_of(" \t\r"), cell.size()));
        cell.resize(cell.find_last_not_of(" \t\r") + 1);
        return cell;
    }

    // What stands behind the closing quote belongs to the cell, as a stray quote inside a plain one does.
    std::string Quoted()
    {
        const std::size_t begin = line_;
        std::string cell;
        for (++at_; at_ < text_.size(); ++at_) {
            if (text_[at_] == '\n') ++line_;
            if (text_[at_] != '"') {
                cell += text_[at_];
            } else if (text_.substr(at_, 2) == "\"\"") {
                cell += text_[at_++];
            } else {
                ++at_;
                return cell + Plain();
            }
        }
        throw voq::Error(file_ + ":" + std::to_string(begin) + ": a quote has no end");
    }

    std::string_view text_;
    const std::string& file_;
    std::size_t at_ = 0, line_ = 1;
    CsvTable table_;
};

std::string Number(double value)
{
    char shortest[40];
    return std::string(shortest, std::to_chars(shortest, shortest + sizeof shortest, value).ptr);
}

std::string Names(const std::shared_ptr<const voq::NamedNumbers>& names)
{
    std::string text;
    if (!names) return text;
    for (const voq::NamedNumber& each : *names) {
        text += (text.empty() ? "" : "|") + std::to_string(each.number) + "=" + each.name;
    }
    return text;
}

std::string Unless(std::uint32_t usual, std::uint32_t value)
{
    return value == usual ? "" : std::to_string(value);
}

std::string Hex(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return value == 0 ? "" : text;
}

std::string Count(const DescribedRegister& each)
{
    const std::uint32_t size = each.reg.type.elemSize == 1 ? 1 : 2;
    return Unless(each.meaning.text == 0 ? 1 : (each.meaning.text + size - 1) / size, each.reg.key.width);
}

std::string OtherFlags(const RegKey& key)
{
    constexpr std::uint32_t named =
        REG_FLAG_BIG_ENDIAN | REG_FLAG_BCD | REG_FLAG_PRIORITY_MASK << REG_FLAG_PRIORITY_SHIFT;
    return Hex(key.flag & ~named);
}

struct Column {
    const char* name;
    std::function<std::string(const DescribedRegister&)> cell;
};

std::vector<Column> Columns()
{
    using Reg = const DescribedRegister&;
    const auto flag = [](Reg each, std::uint32_t bit) {
        return std::string((each.reg.key.flag & bit) != 0 ? "true" : "");
    };
    return {
        {"name", [](Reg each) { return each.name; }},
        {"port", [](Reg each) { return std::to_string(each.reg.key.portno); }},
        {"station", [](Reg each) { return std::to_string(each.reg.key.plcno); }},
        {"area", [](Reg each) { return std::to_string(each.reg.key.regid); }},
        {"type", [](Reg each) { return voq::TypeName(each.reg.type); }},
        {"address", [](Reg each) { return std::to_string(each.reg.key.addr); }},
        {"count", Count},
        {"address_bytes", [](Reg each) { return Unless(voq::DefaultUnit(each.reg.type), RegAddrType(&each.reg.key)); }},
        {"subaddr", [](Reg each) { return Unless(0, each.reg.key.subaddr); }},
        {"priority",
         [](Reg each) { return Unless(0, each.reg.key.flag >> REG_FLAG_PRIORITY_SHIFT & REG_FLAG_PRIORITY_MASK); }},
        {"byte_order",
         [](Reg each) { return each.reg.order ? std::string(voq::ByteOrderNames[*each.reg.order & 3]) : ""; }},
        {"big_endian", [=](Reg each) { return flag(each, REG_FLAG_BIG_ENDIAN); }},
        {"bcd", [=](Reg each) { return flag(each, REG_FLAG_BCD); }},
        {"unit", [](Reg each) { return each.meaning.unit; }},
        {"scale", [](Reg each) { return each.meaning.scale == 1 ? "" : Number(each.meaning.scale); }},
        {"offset", [](Reg each) { return each.meaning.offset == 0 ? "" : Number(each.meaning.offset); }},
        {"decimals", [](Reg each) { return each.meaning.decimals ? std::to_string(*each.meaning.decimals) : ""; }},
        {"min", [](Reg each) { return each.meaning.minimum ? Number(*each.meaning.minimum) : ""; }},
        {"max", [](Reg each) { return each.meaning.maximum ? Number(*each.meaning.maximum) : ""; }},
        {"text", [](Reg each) { return Unless(0, each.meaning.text); }},
        {"text_swapped", [](Reg each) { return std::string(each.meaning.textSwapped ? "true" : ""); }},
        {"enum", [](Reg each) { return Names(each.meaning.numberNames); }},
        {"bits", [](Reg each) { return Names(each.meaning.bitNames); }},
        {"flag", [](Reg each) { return OtherFlags(each.reg.key); }},
        {"convpara", [](Reg each) { return Unless(0, each.reg.key.convpara); }},
        {"comment", [](Reg each) { return each.meaning.comment; }},
    };
}

}  // namespace

CsvTable ParseCsv(const std::string& text, const std::string& file)
{
    return CsvReader(text, file).Run();
}

std::string CsvCell(const std::string& text)
{
    const bool edges = !text.empty() && (text.front() == ' ' || text.back() == ' ');
    if (!edges && text.find_first_of(",;\t\"\r\n") == std::string::npos) return text;
    std::string cell = "\"";
    for (const char c : text) cell += c == '"' ? "\"\"" : std::string(1, c);
    return cell + "\"";
}

std::string CsvOfDescription(const voq::Description& description)
{
    std::vector<Column> used;
    for (Column& column : Columns()) {
        const auto needs = [&](const DescribedRegister& each) { return !column.cell(each).empty(); };
        if (std::any_of(description.registers.begin(), description.registers.end(), needs)) used.push_back(column);
    }
    std::string text;
    for (std::size_t i = 0; i < used.size(); ++i) text += (i == 0 ? "" : ",") + std::string(used[i].name);
    text += '\n';
    for (const DescribedRegister& each : description.registers) {
        for (std::size_t i = 0; i < used.size(); ++i) text += (i == 0 ? "" : ",") + CsvCell(used[i].cell(each));
        text += '\n';
    }
    return text;
}
