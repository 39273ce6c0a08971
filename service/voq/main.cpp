// Process entry: the command line and the start-up sequence, on the main thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arch/box_path.h"
#include "arch/clock.h"
#include "arch/fs.h"
#include "arch/thread.h"
#include "arch/work_file.h"
#include "comm/local_reg.h"
#include "comm/plc_driver.h"
#include "database/database_lock.h"
#include "fileinit/rd_user_file.h"
#include "list/fast_list.h"
#include "list/rt_list.h"
#include "oper/intake.h"
#include "oper/org_pass.h"
#include "oper/priority.h"
#include "oper/rt_pass.h"
#include "state/com_state.h"
#include "state/paths.h"
#include "stats/driver_stats.h"
#include "voq/main_loop.h"
#include "voq/org_record.h"
#include "voq/watchdog.h"

namespace
{
constexpr int Arguments = 6;
constexpr char Help[] = R"(
usage: voq PROJECT PORTINDEX DRIVERDIR USERDIR RECIPEDIR
       voq --help | --version

Serves one communication port of a panel until it is ended.

  PROJECT    project file, ophmi.bin
  PORTINDEX  port of the project to serve, from 0
  DRIVERDIR  directory of the driver libraries
  USERDIR    root of the port directories and of the local registers; must exist
  RECIPEDIR  directory of the retained local registers; must exist

The manual page voq(8) tells more.
)";
constexpr std::size_t LongPathBytes = 256;
constexpr std::uint32_t WatchdogFirstPort = 515;
constexpr std::uint32_t HeaderRetryMicroseconds = 10;

struct CommandLine {
    char project[LongPathBytes];
    std::uint16_t port;
    char userDir[LongPathBytes];
};

void CopyArgument(char* to, std::size_t size, const char* from, const char* name)
{
    if (std::snprintf(to, size, "%s", from) < static_cast<int>(size)) return;
    std::printf("*VOQ*%s too long: %s\r\n", name, from);
    std::exit(EXIT_FAILURE);
}

// The copy of a downloaded set names it to the shell.
void RequirePlainName(const char* path)
{
    constexpr char Plain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-/";
    if (path[std::strspn(path, Plain)] == '\0') return;
    std::printf("*VOQ*user data directory: only letters, digits and . _ - / can be used: %s\r\n", path);
    std::exit(EXIT_FAILURE);
}

std::uint16_t PortArgument(const char* text)
{
    char* end;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (end == text || *end != '\0') {
        std::printf("*VOQ*port index is no number: %s\r\n", text);
        std::exit(EXIT_FAILURE);
    }
    return static_cast<std::uint16_t>(value);
}

// One argument was never enough to serve a port.
void AnswerQuestion(const char* argument)
{
    const bool help = std::strcmp(argument, "--help") == 0;
    if (!help && std::strcmp(argument, "--version") != 0) return;
    std::fputs(help ? Help + 1 : "voq " VOQ_VERSION "\n", stdout);
    std::exit(EXIT_SUCCESS);
}

void ReadCommandLine(int count, char** arguments, CommandLine* line)
{
    if (count == 2) AnswerQuestion(arguments[1]);
    if (count != Arguments) {
        std::puts("voq command line error!");
        std::exit(-1);
    }
    CopyArgument(line->project, sizeof line->project, arguments[1], "project file");
    line->port = PortArgument(arguments[2]);
    CopyArgument(PlcDrvDir, sizeof PlcDrvDir, arguments[3], "driver directory");
    CopyArgument(line->userDir, sizeof line->userDir, arguments[4], "user data directory");
    RequirePlainName(line->userDir);
    CopyArgument(RcpDataDir, sizeof RcpDataDir, arguments[5], "recipe data directory");
    std::printf("input arg=%d:%s %d %s %s\n", count, line->project, line->port, PlcDrvDir, line->userDir);
}

// Without its data or index file the database would refuse every new range for the life of the process.
void RequireDatabaseFile(const char* path)
{
    if (FileExists(path)) return;
    std::printf("*VOQ*no %s, to be started again\r\n", path);
    std::exit(EXIT_FAILURE);
}

// Waits until the org file has a whole header. A file that is not there ends a master, to be started again; a slave
// needs none and takes the database for empty.
OrgHeader ReadStartHeader()
{
    const bool needed = ComInfo.masterSlaveMode != MODE_SLAVE;
    if (needed) RequireDatabaseFile(DataFileName);
    if (needed) RequireDatabaseFile(IndexFileName);
    const MutexLock lock(DatabaseLock);
    WorkFile file;
    if (!file.OpenRO(OrgFileName)) {
        if (needed) std::exit(EXIT_FAILURE);
        return {};
    }
    OrgHeader header;
    while (!file.ReadRecord(0, header)) {
        std::puts("*VOQ*Start Read ORG file ret=0\r");
        if (!needed) return {};
        SleepMicroseconds(HeaderRetryMicroseconds);
    }
    return header;
}

void StartCursors(const OrgHeader& header)
{
    {
        const ReadLock lock(fast_rwlock);
        CurrentFastList = OrgFastListHead.head;
    }
    CurrentNode = header.head;
}

void ShowStartedPort()
{
    const MutexLock lock(DriverLock);
    ShowPort(_cmd != nullptr);
}

void StartServiceThreads()
{
    if (!StartThread(gui_service_thread)) std::puts("voq:Create gui service thread error\r");
    if (!StartThread(mek_service_thread)) std::puts("voq:Create mek service_thread error\r");
}

void MakeSystemWords()
{
    const MutexLock lock(LocalRegLock);
    if (FileExists(SRWName)) return;
    std::printf("*VOQ*%s not find,build one \r\n", SRWName);
    CreateSystemWords();
}

void StartWatchdog(std::uint16_t port)
{
    GlobeWatchDogAddr = (port + WatchdogFirstPort) * 2;
    std::printf("*VOQ*---------------->GlobeWatchDogAddr=%d\r\n", static_cast<int>(GlobeWatchDogAddr));
    if (!StartThread(watchdog_thread)) std::puts("voq:Create voq watchdog service_thread error\r");
}

void LineBufferedOutput()
{
    static char buffer[4096];
    std::setvbuf(stdout, buffer, _IOLBF, sizeof buffer);
}
}  // namespace

int main(int argc, char** argv)
{
    LineBufferedOutput();
    pack_disable = 0;
    IgnoreBrokenPipe();
    static CommandLine line;
    ReadCommandLine(argc, argv, &line);
    RdUserFile(line.project, line.userDir, line.port);

    const OrgHeader header = ReadStartHeader();
    StartCursors(header);
    InitPriRange();
    comIntervals = ComInfo.pause;
    std::printf("*VOQ*comIntervals=%d\r\n", static_cast<int>(comIntervals));
    ShowStartedPort();
    MaxRtList = 3;
    DivRt = 3;
    std::printf("*VOQ*masterSlaveMode=%d\r\n", ComInfo.masterSlaveMode);
    if (ComInfo.masterSlaveMode != MODE_SLAVE) StartServiceThreads();
    GetCurrentTime(&VoqStartTime);
    MakeSystemWords();
    StartWatchdog(line.port);
    isHmi = FileExists(TarnDir) ? 0 : 1;
    MainLoop(line.port, header.count);
}
