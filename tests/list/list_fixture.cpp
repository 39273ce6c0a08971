#include "list_fixture.h"

#include <set>

WriteGate Gate;

std::size_t PassGate(const FileChange& change)
{
    const bool sync = change.kind == FileChange::Sync;
    if (!sync) ++Gate.made;
    if (Gate.trace != nullptr && change.descriptor >= 0) {
        const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(change.descriptor));
        *Gate.trace += std::filesystem::is_directory(path) ? "." : path.filename().string();
        *Gate.trace += sync ? "! " : "@" + std::to_string(change.offset) + "+" + std::to_string(change.size) + " ";
    }
    return AllOf(change);
}

Files LoadFiles(const std::string& folder)
{
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.is_regular_file()) files[entry.path().filename()] = FileBytes(entry.path());
    }
    return files;
}

void StoreFiles(const std::string& folder, const Files& files)
{
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.is_regular_file() && files.count(entry.path().filename()) == 0) std::filesystem::remove(entry.path());
    }
    for (const auto& [name, bytes] : files) std::ofstream(folder + name, std::ios::binary) << bytes;
}

RegKey Key(unsigned plcno, unsigned layout, std::uint32_t addr, unsigned width, std::uint32_t subaddr,
           std::uint32_t flag)
{
    return {flag,
            0,
            1,
            static_cast<std::uint8_t>(plcno),
            static_cast<std::uint8_t>(layout),
            16,
            static_cast<std::uint16_t>(width),
            addr,
            subaddr};
}

std::string Request(const RegKey& key, OrgMode mode, int result, std::uint16_t fileno)
{
    const RegRequest request{key, static_cast<std::uint8_t>(mode), 0, fileno, 0};
    return Output([&] {
        EXPECT_EQ(result, mode == OrgMode::Register ? CheckOrgList(&key) : LogOnOff2OrgList(&request, mode, fileno));
    });
}

std::string MapName(const RegKey& key)
{
    char name[40];
    std::snprintf(name, sizeof name, "im%x_%x_%x_%x%s", key.plcno, key.regid, key.layout, key.subaddr & 0xFFFF,
                  (key.flag & 0x200) != 0 ? "_1" : "");
    return name;
}

std::string MapBytes(const Run& run)
{
    std::string map(12 * run.size(), '\0');
    for (std::size_t i = 0; i < run.size(); ++i) {
        SetWord(map, 12 * i, run[i].key.addr);
        SetWord(map, 12 * i + 4, run[i].key.width | (run[i].key.subaddr & 0xFFFF0000));
        SetWord(map, 12 * i + 8, run[i].offset);
    }
    return map;
}

std::string IndexBytes(const Run& run, std::size_t mapcount)
{
    const RegKey& key = run.at(0).key;
    std::string entry(16, '\0');
    SetWord(entry, 0, key.plcno | std::uint32_t{key.regid} << 16);
    SetWord(entry, 4, (key.subaddr & 0xFFFF) | std::uint32_t{key.layout} << 16 | (key.flag & 0x200) << 15);
    SetWord(entry, 8, run[0].offset);
    SetWord(entry, 12, static_cast<std::uint32_t>(mapcount));
    return entry;
}

std::vector<Run> ReadChain(const std::string& org, std::string& fault)
{
    std::vector<Run> runs;
    std::uint32_t prev = 0, count = 0;
    for (std::uint32_t at = Word(org, 4); at != 0; prev = at, at = Word(org, at + 52), ++count) {
        if ((at - 12) % 56 != 0 || at + 56 > org.size() || count > org.size() / 56) fault = "next link";
        if (Word(org, at + 48) != prev) fault = "previous link";
        if (!fault.empty()) return runs;
        const Row row{Word<RegKey>(org, at), Word<std::uint16_t>(org, at + 32), at, Word(org, at + 44)};
        if (runs.empty() || Identity(runs.back()[0].key) != Identity(row.key)) {
            runs.emplace_back();
        } else if (Order(row.key) <= Order(runs.back().back().key)) {
            fault = "order";
        }
        runs.back().push_back(row);
    }
    if (Word(org, 0) != count || Word(org, 8) != prev) fault = "header";
    return runs;
}

std::string Unsound(const Files& files)
{
    std::string fault;
    const std::vector<Run> runs = ReadChain(files.at("org"), fault);
    if (!fault.empty()) return fault;
    if ((files.at("org").size() - 12) % 56 != 0) return "cut-off record";
    std::set<decltype(Identity(RegKey{}))> identities;
    std::set<std::string> entries;
    std::map<std::uint32_t, std::uint32_t> regions;
    const std::string& index = files.at("index");
    for (std::size_t at = 0; at + 16 <= index.size(); at += 16) entries.insert(index.substr(at, 16));
    for (const Run& run : runs) {
        if (!identities.insert(Identity(run[0].key)).second) return "group in two runs";
        for (const Row& row : run) {
            if (RegionBytes(row.key) == 0) continue;
            if (!regions.emplace(row.dataoffset, row.dataoffset + RegionBytes(row.key)).second) return "region twice";
        }
        if (index.size() < 16) continue;
        if (entries.count(IndexBytes(run, run.size())) == 0) return "index entry";
        const auto map = files.find(MapName(run[0].key));
        if (map == files.end() || map->second != MapBytes(run)) return "map " + MapName(run[0].key);
    }
    if (index.size() >= 16 && index.size() / 16 != runs.size()) return "index entries";
    std::uint32_t free = 0;
    for (const auto& [begin, end] : regions) {
        if (begin < free || end > files.at("data").size()) return "region";
        free = end;
    }
    return "";
}
