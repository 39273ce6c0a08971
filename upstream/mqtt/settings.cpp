// Reads the settings file.
#include "upstream/mqtt/settings.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "client/description/description.h"
#include "client/description/table.h"
#include "client/error.h"

namespace voq::mqtt
{

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* Conventions[] = {"plain", "sparkplug"};
constexpr const char* Protocols[] = {"5", "3.1.1"};
constexpr std::uint32_t LongestSeconds = 24 * 3600;
constexpr std::size_t MaxBytes = 256 * 1024;
constexpr std::size_t MaxGroups = 256, MaxPatterns = 4096;
constexpr std::size_t MaxLevel = 64;  // characters of a name that becomes a level of a topic

std::string HostName()
{
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) return "";
    return std::string(name).substr(0, std::string_view(name).find('.'));
}

// A name that stands in topics.
bool ValidLevel(std::string_view name)
{
    return !name.empty() && name.size() <= MaxLevel && name[0] != '$' &&
           name.find_first_of("+#/") == std::string_view::npos &&
           std::none_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

std::string Level(Table& table, const char* key, std::string otherwise)
{
    std::string name = table.Text(key).value_or(std::move(otherwise));
    if (!ValidLevel(name)) {
        table.FailAt(key, "\"" + name + "\" must have 1 to " + std::to_string(MaxLevel) +
                              " characters, none of them \"+\", \"#\" or \"/\", and not begin with \"$\"");
    }
    return name;
}

// A file that the broker's connection needs, if it is given.
std::string Readable(Table& table, const char* key)
{
    const std::string file = table.Text(key).value_or("");
    std::ifstream stream(file);
    stream.peek();
    if (!file.empty() && (!stream.is_open() || stream.bad())) table.FailAt(key, SystemError(file, errno).what());
    return file;
}

std::string FirstLine(Table& table, const char* key)
{
    const std::string file = Readable(table, key);
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    if (line.empty() && !file.empty()) table.FailAt(key, file + ": the first line is empty");
    return line;
}

void ReadTls(const toml::node& node, Remarks& remarks, BrokerSettings& broker)
{
    Table table(node, remarks, "[broker.tls]");
    broker.tls = true;
    broker.ca = Readable(table, "ca");
    broker.certificate = Readable(table, "certificate");
    broker.key = Readable(table, "key");
    if (broker.certificate.empty() != broker.key.empty()) table.FailHere("certificate and key go together");
    table.Finish();
}

void ReadBroker(Table& table, Remarks& remarks, BrokerSettings& broker)
{
    broker.host = table.Text("host").value_or("");
    if (const toml::node* tls = table.Take("tls")) ReadTls(*tls, remarks, broker);
    broker.port = static_cast<std::uint16_t>(table.Number("port", 1, 65535).value_or(broker.tls ? 8883 : 1883));
    broker.version = table.Choice("protocol", Protocols).value_or(0) == 0 ? 5 : 4;
    broker.clientId = table.Text("client_id").value_or("");
    broker.user = table.Text("user").value_or("");
    broker.password = FirstLine(table, "password_file");
    if (!broker.password.empty() && broker.user.empty()) table.FailAt("password_file", "user is missing");
    broker.keepalive = seconds(table.Number("keepalive_s", 5, 3600).value_or(15));
    broker.longestRetry = seconds(table.Number("retry_s", 1, 3600).value_or(10));
    table.Finish();
}

void ReadBox(Table& table, Settings& settings)
{
    settings.box = Level(table, "name", HostName());
    settings.convention = static_cast<Convention>(table.Choice("convention", Conventions).value_or(0));
    const bool sparkplug = settings.convention == Convention::Sparkplug;
    if (sparkplug) {
        settings.base = Level(table, "group", "voq");
        if (table.HasOwn("primary_host")) settings.primaryHost = Level(table, "primary_host", "");
    } else {
        settings.base = Level(table, "base", "voq");
        for (const char* key : {"group", "primary_host"}) {
            if (table.Take(key) != nullptr) table.FailAt(key, "is for convention = \"sparkplug\"");
        }
    }
    table.Finish();
}

void ReadSpool(Table& table, SpoolSettings& spool)
{
    constexpr std::uint32_t kib = 1024;
    spool.file = table.Text("file").value_or(spool.file);
    spool.bytes = std::uint64_t{table.Number("kib", 64, 4 * kib * kib).value_or(16 * kib)} * kib;
    spool.writesPerMinute = table.Number("writes_per_minute", 1, 60).value_or(spool.writesPerMinute);
    table.Finish();
}

void ReadPatterns(Table& table, std::vector<Pattern>& patterns)
{
    const toml::node* node = table.Take("registers");
    if (node == nullptr) return patterns.push_back({"*", table.Line()});
    const toml::array* list = node->as_array();
    if (list == nullptr || list->size() > MaxPatterns) {
        return table.FailAt("registers", "must be a list of names, as [\"press.*\", \"lift.floor\"]");
    }
    for (const toml::node& each : *list) {
        const auto* text = each.as_string();
        text != nullptr ? patterns.push_back({text->get(), LineOf(each)})
                        : table.Fail(each, "registers: must be strings");
    }
}

TellGroup ReadGroup(const toml::node& node, Remarks& remarks)
{
    Table table(node, remarks, "[[tell]]");
    TellGroup group;
    ReadPatterns(table, group.patterns);
    TellRule& rule = group.rule;
    rule.deadband = table.Real("deadband").value_or(0);
    if (rule.deadband < 0) table.FailAt("deadband", "must not be below 0");
    rule.least = milliseconds(table.Number("least_ms", 0, LongestSeconds * 1000).value_or(0));
    rule.most = seconds(table.Number("most_s", 0, LongestSeconds).value_or(60));
    if (rule.most.count() != 0 && rule.most < rule.least) table.FailAt("most_s", "is shorter than least_ms");
    rule.writable = table.Bool("writes").value_or(false);
    table.Finish();
    return group;
}

void ReadGroups(Table& file, Remarks& remarks, std::vector<TellGroup>& groups)
{
    const toml::node* node = file.Take("tell");
    if (node == nullptr) return groups.push_back({{{"*", 0}}, {}});
    const toml::array* list = node->as_array();
    if (list == nullptr || list->size() > MaxGroups) return file.FailAt("tell", "must be written as [[tell]]");
    for (const toml::node& each : *list) groups.push_back(ReadGroup(each, remarks));
}

void ReadFile(const toml::table& text, Remarks& remarks, Settings& settings)
{
    static const toml::table nothing;
    Table file(text, remarks, "the file");
    const auto table = [&](const char* key) {
        const toml::node* node = file.Take(key);
        return Table(node == nullptr ? nothing : *node, remarks, key);
    };
    Table broker = table("broker"), box = table("box"), spool = table("spool");
    ReadBroker(broker, remarks, settings.broker);
    ReadBox(box, settings);
    ReadSpool(spool, settings.spool);
    ReadGroups(file, remarks, settings.groups);
    if (settings.broker.clientId.empty()) settings.broker.clientId = settings.base + "-" + settings.box;
    file.Finish();
    if (settings.broker.host.empty() && remarks.Errors() == 0) broker.FailHere("host in [broker] is missing");
}

}  // namespace

Settings LoadSettings(const std::string& file)
{
    Settings settings;
    settings.file = file;
    Remarks remarks(file);
    const std::string text = DescriptionText(file);
    if (text.size() > MaxBytes) throw Error(file + ": longer than " + std::to_string(MaxBytes) + " bytes");
    try {
        ReadFile(toml::parse(text, file), remarks, settings);
    } catch (const toml::parse_error& error) {
        remarks.Error(error.source().begin.line, std::string(error.description()));
    }
    remarks.ThrowFirst();
    return settings;
}

}  // namespace voq::mqtt
