// Reads descriptions: the file, and its tables in the order in which they lean on each other.
#include <fstream>

#include "client/description/limits.h"
#include "client/description/reading.h"
#include "client/error.h"

namespace voq
{

namespace
{

// The elements of an array of tables; none when the key is absent.
void ForTables(Table& root, const char* key, Reading& reading, void (*read)(const toml::node&, Reading&))
{
    const toml::node* value = root.Take(key);
    if (value == nullptr) return;
    if (!value->is_array()) return root.Fail(*value, std::string(key) + " must be written as [[" + key + "]]");
    for (const toml::node& element : *value->as_array()) read(element, reading);
}

void ReadTables(const toml::table& file, Reading& reading)
{
    Table root(file, reading.remarks, "the file");
    reading.text.byteOrder = ReadByteOrder(root).value_or(0);
    ForTables(root, "port", reading, ReadPort);
    if (reading.text.ports.empty() && root.Good()) reading.remarks.Error(0, "there is no [[port]]");
    ForTables(root, "station", reading, ReadStation);
    ForTables(root, "block", reading, ReadBlock);
    ForTables(root, "register", reading, ReadRegister);
    root.Finish();
}

}  // namespace

Description ReadDescription(const std::string& text, const DriverDirs& drivers, Remarks& remarks,
                            const std::function<void(std::size_t)>& tell)
{
    Reading reading{{}, remarks, drivers, tell};
    if (!WithinDescriptionLimits(text, remarks)) return {};
    try {
        const toml::table file = toml::parse(text, remarks.File());
        ReadTables(file, reading);
    } catch (const toml::parse_error& error) {
        remarks.Error(error.source().begin.line, std::string(error.description()));
    }
    return std::move(reading.text);
}

Description ParseDescription(const std::string& text, const std::string& file, const DriverDirs& drivers)
{
    Remarks remarks(file);
    Description description = ReadDescription(text, drivers, remarks);
    remarks.ThrowFirst();
    return description;
}

std::string DescriptionText(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::string text;
    for (char block[16384]; stream.read(block, sizeof block), stream.gcount() > 0;) {
        text.append(block, static_cast<std::size_t>(stream.gcount()));
        if (text.size() > MaxDescriptionBytes) break;
    }
    if (!stream.eof() && text.size() <= MaxDescriptionBytes) throw SystemError(file, errno);
    return text;
}

Description LoadDescription(const std::string& file, const DriverDirs& drivers)
{
    return ParseDescription(DescriptionText(file), file, drivers);
}

}  // namespace voq
