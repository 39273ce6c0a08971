// The power goes: of what was changed and not synced, anything may be on the disk and anything not, sector by sector.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <unordered_set>

#include "torture.h"

namespace
{
constexpr std::uint32_t SectorBytes = 512;

// A file is named by its identity, so that writes stay with it when it is renamed.
struct Disk {
    std::map<std::string, ino_t> names;  // 0: removed
    std::map<ino_t, std::string> contents;
    std::map<ino_t, std::size_t> sizes;  // which reach the disk apart from the content
};

// One change that reaches the disk or not by itself.
struct Atom {
    ino_t file;  // 0: the folder
    std::function<void(Disk&)> apply;
};

struct SyncPoint {
    std::size_t behind;  // so many atoms
    ino_t file;
    Registered promised;  // when it is the org file's: what is registered now
};

struct Recording {
    Disk before = {};
    std::vector<Atom> atoms = {};
    std::vector<SyncPoint> syncs = {};

    void Write(ino_t file, std::size_t at, std::string_view data)
    {
        for (std::string_view piece; !data.empty(); data.remove_prefix(piece.size()), at += piece.size()) {
            piece = data.substr(0, SectorBytes - at % SectorBytes);
            const auto put = [file, at, bytes = std::string(piece)](Disk& disk) {
                std::string& content = disk.contents[file];
                content.resize(std::max(content.size(), at + bytes.size()));
                content.replace(at, bytes.size(), bytes);
            };
            atoms.push_back({file, put});
        }
    }
    // A file grows sector by sector.
    void Resize(ino_t file, std::size_t from, std::size_t to)
    {
        while (from != to) {
            from = from > to ? to : std::min(to, (from / SectorBytes + 1) * SectorBytes);
            const auto resize = [=](Disk& disk) {
                std::string& content = disk.contents[file];
                if (from < disk.sizes[file]) content.resize(std::min(content.size(), from));
                disk.sizes[file] = from;
            };
            atoms.push_back({file, resize});
        }
    }
    // At once: names are given to files, or taken away.
    void Name(const std::map<std::string, ino_t>& given)
    {
        const auto name = [=](Disk& disk) {
            for (const auto& [path, file] : given) disk.names[std::filesystem::path(path).filename()] = file;
        };
        atoms.push_back({0, name});
    }
};

ino_t Identity(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

void Record(const Database& database, Recording& recording, const FileChange& change)
{
    struct stat info = {};
    if (change.descriptor >= 0) fstat(change.descriptor, &info);
    const ino_t file = info.st_ino;
    const auto was = static_cast<std::size_t>(info.st_size);
    if (change.kind == FileChange::Write) {
        recording.Write(file, change.offset, {static_cast<const char*>(change.data), change.size});
        recording.Resize(file, was, std::max(was, change.offset + change.size));
    } else if (change.kind == FileChange::Resize) {
        recording.Resize(file, was, change.size);
    } else if (change.kind == FileChange::Sync) {
        recording.syncs.push_back({recording.atoms.size(), S_ISDIR(info.st_mode) ? 0 : file, {}});
        if (file == Identity(OrgFileName)) recording.syncs.back().promised = RegisteredIn(database.Load().at("org"));
    } else if (change.kind == FileChange::Remove) {
        recording.Name({{change.path, 0}});
    } else if (change.kind == FileChange::Rename) {
        recording.Name({{change.path, 0}, {change.to, Identity(change.path)}});
    } else if (stat(change.path, &info) == 0) {
        recording.Resize(info.st_ino, static_cast<std::size_t>(info.st_size), 0);
    } else {
        close(open(change.path, O_CREAT | O_WRONLY, 0666));
        recording.Name({{change.path, Identity(change.path)}});
    }
}

// What the disk holds when exactly the chosen atoms reached it.
Files OnDisk(const Recording& recording, const std::vector<bool>& chosen)
{
    Disk disk = recording.before;
    for (std::size_t i = 0; i < chosen.size(); ++i) {
        if (chosen[i]) recording.atoms[i].apply(disk);
    }
    Files files;
    for (const auto& [name, file] : disk.names) {
        if (file == 0) continue;
        files[name] = disk.contents[file];
        files[name].resize(disk.sizes[file]);
    }
    return files;
}

struct Cutter {
    Database& database;
    const std::size_t most, samples;  // of more pending changes than `most`, so many are sampled
    const std::size_t again;          // of the starts that mend, one in so many is cut short as well
    std::size_t whole = 0, sampled = 0, second = 0, mendings = 0;
    std::mt19937 random{5};
    std::unordered_set<std::size_t> distinct = {}, judged = {};

    // Runs the operation once and cuts the power before each of its syncs and behind its end: everything that could be
    // lost earlier can be lost there.
    void Run(Operation operation)
    {
        Recording recording;
        database.Set(operation.before, operation.download);
        for (const auto& [name, bytes] : operation.before) {
            const ino_t file = recording.before.names[name] = Identity(database.Path(name));
            recording.before.contents[file] = bytes;
            recording.before.sizes[file] = bytes.size();
        }
        Tap = [&](const FileChange& change) {
            Record(database, recording, change);
            return AllOf(change);
        };
        database.Run(operation);
        Tap = nullptr;
        recording.syncs.push_back({recording.atoms.size(), 0, {}});
        for (std::size_t sync = 0; sync < recording.syncs.size(); ++sync) {
            Cut(operation, recording, sync);
            operation.promised.merge(Registered(recording.syncs[sync].promised));
        }
    }

    void Cut(const Operation& operation, const Recording& recording, std::size_t sync)
    {
        std::vector<bool> chosen(recording.syncs[sync].behind);
        std::vector<std::size_t> pending;
        for (std::size_t i = 0; i < chosen.size(); ++i) {
            chosen[i] = std::any_of(
                recording.syncs.begin(), recording.syncs.begin() + sync,
                [&](const SyncPoint& point) { return i < point.behind && point.file == recording.atoms[i].file; });
            if (!chosen[i]) pending.push_back(i);
        }
        const std::size_t bits = pending.size();
        const bool all = bits <= most;
        ++(all ? whole : sampled);
        for (std::size_t subset = 0; subset < (all ? std::size_t{1} << bits : 3 * (bits + 1) + samples); ++subset) {
            const std::size_t kind = subset / (bits + 1), one = subset % (bits + 1);
            for (std::size_t bit = 0; bit < bits; ++bit) {
                chosen[pending[bit]] = all         ? (subset >> bit & 1) != 0
                                       : kind == 0 ? bit < one
                                       : kind == 1 ? bit == one
                                       : kind == 2 ? bit != one
                                                   : (random() & 1) != 0;
            }
            Where = operation.name + ", before sync " + std::to_string(sync) + ", subset " + std::to_string(subset);
            Judge(operation, OnDisk(recording, chosen));
        }
    }

    void Judge(const Operation& operation, const Files& files)
    {
        std::string state;
        for (const auto& [name, bytes] : files) state += name + "\n" + bytes;
        distinct.insert(std::hash<std::string>{}(state));
        state += operation.name + std::to_string(operation.promised.size());
        if (!judged.insert(std::hash<std::string>{}(state)).second) return;
        const std::size_t mended = database.mended;
        database.Set(files, operation.download);
        database.StartAndJudge(operation);
        if (database.mended == mended || operation.name.ends_with("+") || ++mendings % again != 0) return;
        ++second;
        Operation next = operation;
        next.name += ", in the start behind it+";
        next.before = files;
        next.run = [this] { database.Start(); };
        Run(next);
    }
};

// Insertions that end in a plain close, some others between them, on a table of any length.
Operation RunOf(const Database& database, unsigned number)
{
    std::mt19937 random(number);
    const Files filled = Filled(database, 4 + random() % 70);
    std::vector<std::pair<RegKey, OrgMode>> steps;
    for (std::uint32_t i = 0; i < 3 + random() % 6; ++i) {
        const std::uint32_t addr = random() % 8 == 0 ? random() % 200 : 1000 + 10 * i;
        steps.emplace_back(Range(1 + random() % 4, addr, 3), random() % 3 == 0 ? OrgMode::LogOn : OrgMode::Register);
    }
    const auto run = [steps] {
        for (const auto& [key, mode] : steps) Request(key, mode);
    };
    return {"run " + std::to_string(number), filled, run, RegisteredIn(filled.at("org"))};
}
}  // namespace

// The tables' lengths let the next record lie across the end of a sector at every place where it can.
void PowerCut(Database& database, bool thorough)
{
    Cutter cutter{database, thorough ? 12u : 11u, thorough ? 400u : 40u, thorough ? 10u : 8u};
    const std::vector<std::size_t> tables = {8, 18, 27, 36, 45, 54, 63};
    for (std::size_t table = 0; table < (thorough ? tables.size() : 1); ++table) {
        for (const Operation& operation : Operations(database, tables[table])) cutter.Run(operation);
    }
    dprintf(Terminal, "power cut: %zu cuts of single operations and of the mending behind them, %zu of them sampled\n",
            cutter.whole + cutter.sampled, cutter.sampled);
    const std::size_t single = cutter.distinct.size(), least = thorough ? 100000 : 5000;
    for (unsigned number = 0; cutter.distinct.size() < least; ++number) cutter.Run(RunOf(database, number));
    const std::size_t states = cutter.distinct.size();
    dprintf(Terminal,
            "power cut: %zu states of single operations, %zu of runs, %zu databases mended, %zu starts cut as well\n",
            single, states - single, database.mended, cutter.second);
    Report("power cut: distinct states", states, ">= " + std::to_string(least), states >= least);
    Report("power cut: faults", Complaints, "0", Complaints == 0);
    Report("power cut: torn keys that look plausible", database.torn.size(), "0", database.torn.empty());
}
