// Everything the service does to the files of its register database, by name.
#include "database/index.h"
#include "database/write_through.h"
#include "oper/fast_pass.h"
#include "torture.h"

namespace
{
const RegKey Long = Range(4, 10, 2500);
const Files Empty = {{"org", std::string(12, '\0')}, {"data", ""}, {"index", ""}};

// Each kind of difference that a start mends.
Files Lagging(Files files)
{
    SetWord(files["org"], 0, Word(files["org"], 0) + 1);
    SetWord(files["org"], 12 + 48, 68);
    files["org"] += "a record cut off";
    files["data"].pop_back();
    SetWord(files["index"], 8, 68);
    files["index"].resize(files["index"].size() - 20);
    files["im2_10_22_0"].resize(20);
    return files;
}
}  // namespace

RegKey Range(unsigned group, std::uint32_t addr, unsigned width)
{
    RegKey key = Key(group, group == 3 ? 0 : 0x22, addr, width);
    key.flag = 0x10000;
    return key;
}

// The fourth range is the long one.
Files Filled(const Database& database, std::size_t records)
{
    database.Set(Empty);
    for (unsigned i = 0; i < records; ++i) {
        Request(Range(1 + i % 4, 10 * (1 + i / 4), i == 3 ? 2500 : 2), OrgMode::LogOn);
    }
    return database.Load();
}

std::vector<Operation> Operations(Database& database, std::size_t records)
{
    const Files set = Filled(database, records + 3), filled = Filled(database, records);
    const Registered all = RegisteredIn(filled.at("org")), allOfSet = RegisteredIn(set.at("org"));
    Files alien = filled, lost = filled, cutShort = filled;
    alien["index"][16] = 77;
    lost.erase("data");
    cutShort["building"] = "";
    const auto start = [&database] { database.Start(); };
    // The value is longer than what is written at once (file_tap.cpp).
    const auto write = [value = std::string(5000, 'v')] { UpdateOrgAfterWrite(Long, 5000, value.data()); };
    const auto poll = [] {
        AddFastIndex(Long, 7, 12 + 3 * 56);
        OperFastList();
    };
    std::vector<Operation> operations = {
        {"write carried into the database", filled, write, all},
        {"polling write-back", filled, poll, all},
        {"map refresh", filled, InitIndexMap, all},
        {"repair", Lagging(filled), start, all},
        {"data file lost", lost, start, all},
        {"download taken over", filled, start, allOfSet, set},
        {"download after a build cut short", cutShort, start, allOfSet, set},
        {"first build", {}, start, {}},
        {"build anew", cutShort, start, {}},
        {"refusal", alien, start, {}, {}, true},
    };
    // What a build ends with is there after any cut: the next start builds again.
    for (auto build = operations.end() - 3; build != operations.end(); ++build) {
        database.Run(*build);
        build->promised = build->known;
    }
    const std::pair<const char*, RegKey> ranges[] = {
        {"new group", Range(9, 1)},      {"in front of all", Range(1, 5)},        {"in front", Range(2, 5)},
        {"in the middle", Range(2, 15)}, {"before another group", Range(2, 900)}, {"at the end", Range(4, 900)},
        {"known", Range(1, 20)}};
    const std::pair<const char*, OrgMode> modes[] = {
        {"log-on ", OrgMode::LogOn}, {"log-off ", OrgMode::LogOff}, {"registration ", OrgMode::Register}};
    for (const auto& [how, mode] : modes) {
        const auto log = [mode = mode](const RegKey& key) { return [=] { Request(key, mode); }; };
        for (const auto& [where, key] : ranges) operations.push_back({std::string(how) + where, filled, log(key), all});
        // The first registration of all is part of the first build.
        if (mode != OrgMode::Register) operations.push_back({std::string(how) + "first", Empty, log(Range(1, 7)), {}});
    }
    return operations;
}
