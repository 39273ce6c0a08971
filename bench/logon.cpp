// A client's log-on of a new range into a group of SIZE subscribed ranges, against a program that makes the same writes
// and syncs under the same locks and reads the records that the service has to walk, in turns. The new range goes to
// the middle of its group.
//     logon FOLDER SAMPLES SIZE...
#include "changes.h"
#include "floor_database.h"
#include "list/log_on_off.h"
#include "support/scratch.h"

namespace
{
RegRequest LogOnRequest(std::uint32_t addr)
{
    return {WordKey(addr, 1), static_cast<std::uint8_t>(RequestCommand::LogOn), 0, 60000, 0};
}

// The database as it is before a log-on. What is put back is forced to the disk, so that the next sync need not do it.
class Before
{
public:
    Before() : org_(FileBytes(OrgFileName)), data_(FileBytes(DataFileName)), index_(FileBytes(IndexFileName)) {}
    void PutBack() const
    {
        const std::pair<const char*, const std::string&> files[] = {
            {OrgFileName, org_}, {DataFileName, data_}, {IndexFileName, index_}};
        for (const auto& [path, bytes] : files) {
            const RawFile file(path, O_RDWR | O_TRUNC);
            file.Put(bytes.data(), bytes.size(), 0);
            file.Sync();
        }
    }

private:
    std::string org_, data_, index_;
};

template <typename Work>
double TimeFrom(const Before& before, Work work)
{
    before.PutBack();
    const double start = NowUs();
    work();
    return NowUs() - start;
}

// The many registrations that a size takes are not measured: they are made in memory.
Before Registered(std::uint32_t size)
{
    const Scratch memory;
    for (std::uint32_t i = 0; i < size; ++i) {
        const RegKey key = WordKey(2 * i, 1);
        CheckOrgList(&key);
    }
    return {};
}

void Measure(const Report& report, const std::string& folder, std::uint32_t size, int samples)
{
    const Before before = Registered(size);
    const Scratch scratch(folder);
    before.PutBack();
    for (std::uint32_t i = 0; i < size; ++i) {
        AddFastIndex(WordKey(2 * i, 1), static_cast<std::uint16_t>(i), OrgFirstRecord + 56 * i);
    }
    const RegRequest request = LogOnRequest(size | 1);
    const auto service = [&] { LogOnOff2OrgList(&request, OrgMode::LogOn, request.fileno); };
    const auto floor = [&] { FloorDatabase(scratch.Folder(), size).LogOn(); };
    // The first log-on of each makes its map file, which start-up makes for every group: it is not counted.
    const auto workOf = [&](const auto& logOn) {
        before.PutBack();
        const FileWork work = FileWorkOf(logOn);
        DelFastIndex(request.fileno);
        return work;
    };
    workOf(service);
    workOf(floor);
    const FileWork serviceWork = workOf(service);
    DemandFloor("log-on", serviceWork, workOf(floor));

    std::vector<double> serviceUs, floorUs;
    for (int i = 0; i < samples; ++i) {
        serviceUs.push_back(TimeFrom(before, service));
        DelFastIndex(request.fileno);
        floorUs.push_back(TimeFrom(before, floor));
    }
    report.Figure("logon", size, "us", serviceUs, floorUs);
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc < 4) return 2;
    const Report report;
    for (int i = 3; i < argc; ++i) {
        Measure(report, argv[1], static_cast<std::uint32_t>(std::atoi(argv[i])), std::atoi(argv[2]));
    }
}
