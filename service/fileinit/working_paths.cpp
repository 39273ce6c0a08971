// Composition of the working paths, on the main thread during start-up.
#include "fileinit/working_paths.h"

#include <cstdio>
#include <cstdlib>

#include "arch/box_path.h"
#include "state/com_state.h"

namespace
{
constexpr char DirBreakStr[] = "/";

void Compose(char* path, const char* directory, const char* name)
{
    const int length = std::snprintf(path, PathBytes, "%s%s", directory, name);
    if (length >= 0 && length < PathBytes) return;
    std::printf("*VOQ*working path too long: %s%s\r\n", directory, name);
    std::exit(EXIT_FAILURE);
}

void ComposeAndPrint(char* path, const char* directory, const char* name, const char* line)
{
    Compose(path, directory, name);
    std::printf(line, path);
}
}  // namespace

bool PortDirectory(char* name)
{
    const char* format = nullptr;
    if (ComInfo.linkType == LINK_SERIAL) format = "%scom_%d%s";
    if (ComInfo.linkType == LINK_CAN) format = "%scan_%d%s";
    if (ComInfo.linkType == LINK_ETHERNET) format = "%stcp_%d%s";
    if (format == nullptr) return false;
    std::snprintf(name, PathBytes, format, DirBreakStr, ComInfo.portNo, DirBreakStr);
    return true;
}

void BuildDataPaths(const char* userDir, const char* portDirectory, DownloadPaths* download)
{
    ComposeAndPrint(DataDir, userDir, portDirectory, "DataDir=%s\n");
    ComposeAndPrint(download->directory, DownloadRoot, portDirectory, "downloaddir=%s\n");
    ComposeAndPrint(download->org, download->directory, "org", "downOrg=%s\n");
    ComposeAndPrint(download->index, download->directory, "index", "downindex=%s\n");
    ComposeAndPrint(download->data, download->directory, "data", "downdatafile=%s\n");
}

void BuildLocalPaths(const char* userDir)
{
    ComposeAndPrint(LBName, userDir, "/lb.dat", "LBNAME=%s\n");
    ComposeAndPrint(LWName, userDir, "/lw.dat", "LWNAME=%s\n");
    ComposeAndPrint(SRWName, userDir, "/srw0.dat", "SRWNAME=%s\n");
    ComposeAndPrint(SRBName, userDir, "/srb0.dat", "SRBNAME=%s\n");
    ComposeAndPrint(RWName, RcpDataDir, "/rw.dat", "RWNAME=%s\n");
    ComposeAndPrint(vSRWName, RcpDataDir, "/srw.dat", "vSRWNAME=%s\n");
    ComposeAndPrint(vSRBName, RcpDataDir, "/srb.dat", "vSRBNAME=%s\n");
}

void BuildPortPaths()
{
    ComposeAndPrint(OrgFileName, DataDir, "org", "orgfile=%s\n");
    ComposeAndPrint(DataFileName, DataDir, "data", "datafile=%s\n");
    ComposeAndPrint(IndexFileName, DataDir, "index", "indexfile=%s\n");
    ComposeAndPrint(TimeoutName, DataDir, "timeout", "TimeoutName=%s\n");
    Compose(ComErrorName, DataDir, "comerror");
    Compose(PulsesName, DataDir, "pulses");
    Compose(StatsName, DataDir, "stats");
    ComposeAndPrint(GuiFifo, DataDir, "guififo", "guififo=%s\n");
    ComposeAndPrint(MekFifo, DataDir, "mekfifo", "mekfifo=%s\n");
}

void BuildSlavePath()
{
    ComposeAndPrint(SlaveNoName, DataDir, "slaveno", "SlaveNoName=%s\n");
}
