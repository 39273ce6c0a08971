// The first build of the register database, and single registrations into one that is there, against programs that
// make the same writes and syncs under the locks that these need, and search nothing, in turns.
//     build whole|step FOLDER SAMPLES ascending|shuffled GROUPS SIZE...
// The registers of a project are one-word ranges, dealt out to GROUPS groups in turn.
#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "changes.h"
#include "fileinit/database_files.h"
#include "floor_database.h"
#include "list/log_on_off.h"
#include "state/com_state.h"
#include "support/scratch.h"
#include "voq/project_file.h"

namespace
{
// The registers of a project, in the order of its table.
std::vector<RegKey> Registers(std::uint32_t amount, std::uint32_t groups, bool shuffled)
{
    std::vector<RegKey> keys;
    for (std::uint32_t i = 0; i < amount; ++i) {
        RegKey key = WordKey(i / groups, 1);
        key.regid = static_cast<std::uint16_t>(i % groups);
        keys.push_back(key);
    }
    std::mt19937 random(1);
    if (shuffled) std::shuffle(keys.begin(), keys.end(), random);
    return keys;
}

// A project that holds nothing but a register table.
std::string Project(const std::vector<RegKey>& keys)
{
    constexpr std::uint32_t segments = 24, segment = 180, table = ProjectMinBytes;
    const auto amount = static_cast<std::uint32_t>(keys.size());
    std::string file(table + 4 + 8ull * amount, '\0');
    const auto put = [&file](std::uint32_t at, std::uint32_t value) { std::memcpy(&file[at], &value, sizeof value); };
    put(ProjectSegmentTable, segments);
    put(segments + SegmentRegister, segment);
    put(segment, table);
    put(table, amount);
    for (std::uint32_t i = 0; i < amount; ++i) {
        put(table + 4 + 4 * (amount + i), static_cast<std::uint32_t>(file.size()) - table);
        file.append(reinterpret_cast<const char*>(&keys[i]), sizeof keys[i]);
    }
    return file;
}

// Registers one range after another with no more than the changes of the files that its place takes.
class FloorBuild
{
public:
    explicit FloorBuild(FloorDatabase& files) : files_(files) {}

    // What is there already.
    void Know(const RegKey& key) { Place(key); }

    void Register(const RegKey& key)
    {
        const std::set<std::uint32_t>& group = Place(key);
        if (group.size() == 1) {
            files_.AddGroup();
            return;
        }
        const bool inFront = key.addr != *group.rbegin(), first = key.addr == *group.begin();
        const bool startOfChain = first && key.regid == order_.front();
        const bool endOfChain = !inFront && key.regid == order_.back();
        files_.AddRange(startOfChain || endOfChain ? 2 : 3, inFront, first);
    }

private:
    std::set<std::uint32_t>& Place(const RegKey& key)
    {
        std::set<std::uint32_t>& group = groups_[key.regid];
        if (group.empty()) order_.push_back(key.regid);
        group.insert(key.addr);
        return group;
    }

    FloorDatabase& files_;
    std::map<std::uint16_t, std::set<std::uint32_t>> groups_;
    std::vector<std::uint16_t> order_;
};

// The marker file that stands while the service builds, and what it forces to the disk at the end.
void BuildFloor(const std::string& folder, const std::vector<RegKey>& keys)
{
    RawFile(folder + "building", O_RDWR | O_CREAT | O_TRUNC).Sync();
    SyncFolder(folder);
    FloorDatabase files(folder, 0);
    files.Create();
    RawFile(folder + "org", O_RDWR).Put(std::string(sizeof(OrgHeader), '\0').data(), sizeof(OrgHeader), 0);
    FloorBuild build(files);
    files.BeginBuild();
    for (const RegKey& key : keys) build.Register(key);
    files.EndBuild();
    files.WriteMaps();
    for (const char* name : {"org", "data", "index"}) RawFile(folder + name, O_RDWR).Sync();
    SyncFolder(folder);
    unlink((folder + "building").c_str());
    SyncFolder(folder);
}

// What is removed is forced to the disk, so that the first sync behind it need not do it.
void Empty(const std::string& folder)
{
    for (const auto& entry : std::filesystem::directory_iterator(folder)) std::filesystem::remove(entry.path());
    const int file = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    syncfs(file);
    close(file);
}

template <typename Work>
double Time(Work work)
{
    const double start = NowUs();
    work();
    return NowUs() - start;
}

void MeasureWhole(const Report& report, const std::string& folder, const std::vector<RegKey>& keys, int samples)
{
    const Scratch other;  // the project lies in memory whatever is measured
    const std::string project = other.Folder() + "project";
    std::ofstream(project, std::ios::binary) << Project(keys);
    std::vector<double> serviceUs, floorUs;
    for (int i = 0; i < samples; ++i) {
        const Scratch place(folder);
        ComInfo.portNo = 1;
        Empty(place.Folder());
        const auto service = FileWorkOf([&] {
            serviceUs.push_back(Time([&] {
                if (PrepareDatabase(project.c_str(), DownloadPaths{}) != 0) Fail("first build");
            }));
        });
        if (FileBytes(OrgFileName).size() != 12 + 56 * keys.size()) Fail("a first build that is not whole");
        Empty(place.Folder());
        const auto floor = FileWorkOf([&] { floorUs.push_back(Time([&] { BuildFloor(place.Folder(), keys); })); });
        DemandFloor("first build", service, floor);
    }
    report.Figure("build", static_cast<long>(keys.size()), "us", serviceUs, floorUs);
}

void CopyDatabase(const std::string& from, const std::string& to)
{
    for (const char* name : {"org", "data", "index"}) {
        const std::string bytes = FileBytes(from + name);
        const RawFile file(to + name, O_RDWR | O_CREAT | O_TRUNC);
        file.Put(bytes.data(), bytes.size(), 0);
        file.Sync();
    }
}

// The table is made in memory; only the registrations that follow are made where they are to be measured.
void MeasureSteps(const Report& report, const std::string& folder, const std::vector<RegKey>& keys, int samples)
{
    const Scratch memory;
    const auto known = keys.end() - samples;
    for (auto key = keys.begin(); key != known; ++key) CheckOrgList(&*key);
    const Scratch place(folder);
    CopyDatabase(memory.Folder(), place.Folder());
    const std::string floorFolder = place.Folder() + "floor/";
    std::filesystem::create_directory(floorFolder);
    CopyDatabase(memory.Folder(), floorFolder);
    FloorDatabase files(floorFolder, keys.size() - static_cast<std::size_t>(samples));
    FloorBuild floor(files);
    for (auto key = keys.begin(); key != known; ++key) floor.Know(*key);
    std::vector<double> serviceUs, floorUs;
    for (auto key = known; key != keys.end(); ++key) {
        const auto serviceWork = FileWorkOf([&] { serviceUs.push_back(Time([&] { CheckOrgList(&*key); })); });
        const auto floorWork = FileWorkOf([&] { floorUs.push_back(Time([&] { floor.Register(*key); })); });
        DemandFloor("registration", serviceWork, floorWork);
    }
    report.Figure("step", static_cast<long>(keys.size()), "us", serviceUs, floorUs);
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc < 7) return 2;
    const Report report;
    const bool whole = std::strcmp(argv[1], "whole") == 0, shuffled = std::strcmp(argv[4], "shuffled") == 0;
    const auto groups = static_cast<std::uint32_t>(std::atoi(argv[5]));
    for (int i = 6; i < argc; ++i) {
        const std::vector<RegKey> keys = Registers(static_cast<std::uint32_t>(std::atoi(argv[i])), groups, shuffled);
        (whole ? MeasureWhole : MeasureSteps)(report, argv[2], keys, std::atoi(argv[3]));
    }
}
