// A packed refresh of neighbouring one-word ranges against a bare program that makes the same reads from the PLC and
// the same record writes and syncs under the same locks, in turns. It knows the records and reads none.
//     refresh FOLDER RANGES PASSES SAMPLES DRIVER [PORT]
// A sample is PASSES driver reads, 0 for a whole refresh. With PORT the PLC listens there on Modbus TCP, and the bare
// program reads it over libmodbus.
#include <memory>

#include "changes.h"
#include "list/log_on_off.h"
#include "oper/fast_pass.h"
#include "oper/priority.h"
#include "support/scratch.h"
#include "word_sources.h"

namespace
{
constexpr std::uint16_t Limit = 64;

void SetPort(int port)
{
    ComInfo.wordLimit = Limit;
    ComInfo.wordGap = 1;
    if (port == 0) return;
    ComInfo.linkType = LINK_ETHERNET;
    ComInfo.baudOrAddress = 0x7F000001;
    const auto tcpPort = static_cast<std::uint16_t>(port);
    std::memcpy(ComInfo.driverPara, &tcpPort, sizeof tcpPort);
}

void Subscribe(std::uint16_t ranges)
{
    InitPriRange();
    for (std::uint16_t i = 0; i < ranges; ++i) {
        const RegKey key = BenchKey(i);
        CheckOrgList(&key);
        AddFastIndex(key, i, OrgFirstRecord + std::uint32_t{sizeof(OrgNode)} * i);
    }
}

void DemandAllRead(std::uint32_t ranges)
{
    const std::string org = FileBytes(OrgFileName);
    for (std::uint32_t i = 0; i < ranges; ++i) {
        if (ReadOrgNode(org, 12 + 56 * i).state != 1) Fail("a range that was not read");
    }
}

template <typename Work>
double Time(Work work)
{
    const double start = NowUs();
    work();
    return NowUs() - start;
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc < 6) return 2;
    const Report report;
    const Scratch scratch(argv[1]);
    const auto ranges = static_cast<std::uint16_t>(std::atoi(argv[2]));
    const int passes = std::atoi(argv[3]), samples = std::atoi(argv[4]);
    const int port = argc > 6 ? std::atoi(argv[6]) : 0;
    SetPort(port);
    _cmd = LoadDriver(argv[5]);
    Subscribe(ranges);
    std::unique_ptr<WordSource> source;
    if (port == 0) {
        source = std::make_unique<DriverSource>(_cmd);
    } else {
        source = std::make_unique<ModbusSource>(port);
    }
    BarePolling bare(scratch.Folder(), ranges, true);

    const auto service = [passes] {
        int left = passes;
        do {
            OperFastList();
        } while (passes == 0 ? CurrentFastList != FastHead().head : --left > 0);
    };
    const auto floor = [&] {
        if (passes == 0) bare.Refresh(Limit, *source);
        for (int i = 0; i < passes; ++i) bare.Pass(0, Limit, *source);
    };
    // The first refresh alone finds other values than it brings.
    service();
    if (passes == 0) DemandAllRead(ranges);
    DemandFloor("refresh", FileWorkOf(service), FileWorkOf(floor));
    std::vector<double> serviceUs, floorUs;
    for (int i = 0; i < samples; ++i) {
        serviceUs.push_back(Time(service));
        floorUs.push_back(Time(floor));
    }
    report.Figure("refresh", ranges, "us", serviceUs, floorUs);
}
