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
constexpr std::size_t MostShown = 20;

// One change that reaches the disk or not by itself. A file is named by its identity, so that writes stay with it.
struct Atom {
    ino_t file;  // 0: the folder
    std::uint32_t at;
    std::string bytes;                                      // written at an offset; none: the file's new size
    std::vector<std::pair<std::string, ino_t>> names = {};  // the folder's: identity by name, 0 for a name removed
};

struct SyncPoint {
    std::size_t behind;  // so many atoms
    ino_t file;
    Registered promised;  // when it is the org file's: what is registered now
};

struct Recording {
    std::map<std::string, ino_t> names;
    std::map<ino_t, std::string> contents;
    std::vector<Atom> atoms;
    std::vector<SyncPoint> syncs;
};

ino_t Identity(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

std::string NameOf(const char* path)
{
    return std::filesystem::path(path).filename();
}

// A file grows sector by sector.
void Resize(Recording& recording, ino_t file, std::uint32_t from, std::uint32_t to)
{
    while (from != to) {
        from = from > to ? to : std::min(to, (from / SectorBytes + 1) * SectorBytes);
        recording.atoms.push_back({file, from, ""});
    }
}

void Record(const Database& database, Recording& recording, const FileChange& change)
{
    struct stat info = {};
    if (change.descriptor >= 0) fstat(change.descriptor, &info);
    const ino_t file = info.st_ino;
    const auto was = static_cast<std::uint32_t>(info.st_size), size = static_cast<std::uint32_t>(change.size);
    if (change.kind == FileChange::Write) {
        for (std::uint32_t done = 0, piece; done < size; done += piece) {
            const std::uint32_t at = change.offset + done;
            piece = std::min(size - done, SectorBytes - at % SectorBytes);
            recording.atoms.push_back({file, at, std::string(static_cast<const char*>(change.data) + done, piece)});
        }
        Resize(recording, file, was, std::max(was, change.offset + size));
    } else if (change.kind == FileChange::Resize) {
        Resize(recording, file, was, size);
    } else if (change.kind == FileChange::Sync) {
        const bool org = file == Identity(OrgFileName);
        recording.syncs.push_back({recording.atoms.size(), S_ISDIR(info.st_mode) ? 0 : file, {}});
        if (org) recording.syncs.back().promised = RegisteredIn(database.Load().at("org"));
    } else if (change.kind == FileChange::Remove) {
        recording.atoms.push_back({0, 0, "", {{NameOf(change.path), 0}}});
    } else if (change.kind == FileChange::Rename) {
        recording.atoms.push_back({0, 0, "", {{NameOf(change.path), 0}, {NameOf(change.to), Identity(change.path)}}});
    } else if (stat(change.path, &info) == 0) {
        Resize(recording, info.st_ino, static_cast<std::uint32_t>(info.st_size), 0);
    } else {
        close(open(change.path, O_CREAT | O_WRONLY, 0666));
        recording.atoms.push_back({0, 0, "", {{NameOf(change.path), Identity(change.path)}}});
    }
}

// What the disk holds when exactly the chosen atoms reached it.
Files OnDisk(const Recording& recording, const std::vector<bool>& chosen)
{
    std::map<std::string, ino_t> names = recording.names;
    std::map<ino_t, std::string> contents = recording.contents;
    std::map<ino_t, std::size_t> sizes;
    for (const auto& [file, bytes] : contents) sizes[file] = bytes.size();
    for (std::size_t i = 0; i < chosen.size(); ++i) {
        if (!chosen[i]) continue;
        const Atom& atom = recording.atoms[i];
        std::string& content = contents[atom.file];
        if (!atom.bytes.empty()) {
            content.resize(std::max(content.size(), atom.at + atom.bytes.size()));
            content.replace(atom.at, atom.bytes.size(), atom.bytes);
        } else if (atom.file != 0) {
            if (atom.at < sizes[atom.file]) content.resize(std::min<std::size_t>(content.size(), atom.at));
            sizes[atom.file] = atom.at;
        }
        for (const auto& [name, file] : atom.names) names[name] = file;
    }
    Files files;
    for (const auto& [name, file] : names) {
        if (file == 0) continue;
        files[name] = contents[file];
        files[name].resize(sizes[file]);
    }
    return files;
}

class Cutter
{
public:
    // Of more pending changes than `most`, a sample. Of the starts that mend, one in `again` is cut short as well.
    Cutter(Database& database, std::size_t most, std::size_t samples, std::size_t again)
        : database_(database), most_(most), samples_(samples), again_(again)
    {
    }
    [[nodiscard]] std::size_t States() const { return distinct_.size(); }
    [[nodiscard]] std::size_t Whole() const { return whole_; }
    [[nodiscard]] std::size_t Sampled() const { return sampled_; }
    [[nodiscard]] std::size_t Second() const { return second_; }

    // Runs the operation once and cuts the power before each of its syncs and behind its end: everything that could be
    // lost earlier can be lost there.
    void Run(Operation operation)
    {
        Recording recording;
        database_.Set(operation.before, operation.download);
        for (const auto& [name, bytes] : operation.before) {
            recording.names[name] = Identity(database_.Path(name));
            recording.contents[recording.names[name]] = bytes;
        }
        Tap = [&](const FileChange& change) {
            Record(database_, recording, change);
            return AllOf(change);
        };
        database_.Run(operation);
        Tap = nullptr;
        recording.syncs.push_back({recording.atoms.size(), 0, {}});
        for (std::size_t sync = 0; sync < recording.syncs.size(); ++sync) {
            Cut(operation, recording, sync);
            operation.promised.merge(Registered(recording.syncs[sync].promised));
        }
    }

private:
    void Cut(const Operation& operation, const Recording& recording, std::size_t sync)
    {
        std::vector<bool> chosen(recording.syncs[sync].behind);
        std::vector<std::size_t> pending;
        for (std::size_t i = 0; i < chosen.size(); ++i) {
            for (std::size_t s = 0; s < sync; ++s) {
                const SyncPoint& point = recording.syncs[s];
                if (i < point.behind && point.file == recording.atoms[i].file) chosen[i] = true;
            }
            if (!chosen[i]) pending.push_back(i);
        }
        const std::size_t bits = pending.size();
        const bool all = bits <= most_;
        ++(all ? whole_ : sampled_);
        for (std::size_t subset = 0; subset < (all ? std::size_t{1} << bits : 3 * (bits + 1) + samples_); ++subset) {
            const std::size_t kind = subset / (bits + 1), one = subset % (bits + 1);
            for (std::size_t bit = 0; bit < bits; ++bit) {
                chosen[pending[bit]] = all         ? (subset >> bit & 1) != 0
                                       : kind == 0 ? bit < one
                                       : kind == 1 ? bit == one
                                       : kind == 2 ? bit != one
                                                   : (random_() & 1) != 0;
            }
            At("%s, power cut before sync %zu, subset %zu", operation.name.c_str(), sync, subset);
            Judge(operation, OnDisk(recording, chosen));
        }
    }

    void Judge(const Operation& operation, const Files& files)
    {
        std::string whole;
        for (const auto& [name, bytes] : files) whole += name + "\n" + bytes;
        distinct_.insert(std::hash<std::string>{}(whole));
        whole += operation.name + std::to_string(operation.promised.size());
        if (!judged_.insert(std::hash<std::string>{}(whole)).second) return;
        const std::size_t mended = database_.mended;
        database_.Set(files, operation.download);
        Complain(database_.StartAndJudge(operation));
        if (database_.mended == mended || operation.name.ends_with("+") || ++mendings_ % again_ != 0) return;
        ++second_;
        Operation again = operation;
        again.name += ", in the start behind it+";
        again.before = files;
        again.run = [this] { database_.Start(); };
        Run(again);
    }

    Database& database_;
    std::size_t most_, samples_, again_;
    std::size_t mendings_ = 0, second_ = 0;
    std::size_t whole_ = 0, sampled_ = 0;  // places of a cut: every subset, a sample of them
    std::mt19937 random_{5};
    std::unordered_set<std::size_t> distinct_, judged_;
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
    Cutter cutter(database, thorough ? 14 : 11, thorough ? 2000 : 40, thorough ? 10 : 8);
    const std::vector<std::size_t> tables = {8, 18, 27, 36, 45, 54, 63};
    for (std::size_t table = 0; table < (thorough ? tables.size() : 1); ++table) {
        for (const Operation& operation : Operations(database, tables[table])) cutter.Run(operation);
    }
    Progress("power cut: %zu cuts of single operations and of the mending behind them, %zu of them sampled\n",
             cutter.Whole() + cutter.Sampled(), cutter.Sampled());
    const std::size_t single = cutter.States(), least = thorough ? 100000 : 5000;
    for (unsigned number = 0; cutter.States() < least; ++number) cutter.Run(RunOf(database, number));
    Progress("power cut: %zu starts cut short as well\n", cutter.Second());
    Progress("power cut: %zu states of single operations, %zu of runs, %zu databases mended\n", single,
             cutter.States() - single, database.mended);
    Report("power cut: distinct states", cutter.States(), ">= " + std::to_string(least), cutter.States() >= least);
    ReportComplaints("power cut: faults");
    std::size_t shown = 0;
    for (const std::string& one : database.torn) {
        const RegKey key = Word<RegKey>(one, 0);
        if (++shown > MostShown) break;
        Progress(
            "torn: plcno %u, regid %u, layout %u, width %u, addr %u, subaddr %u, flag 0x%x, record at %u, region at "
            "%u\n",
            key.plcno, key.regid, key.layout, key.width, key.addr, key.subaddr, key.flag, Word(one, 24), Word(one, 28));
    }
    Report("power cut: torn keys that look plausible", database.torn.size(), "0", database.torn.empty());
}
