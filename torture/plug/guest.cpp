#include "guest.h"

#include <dirent.h>
#include <fcntl.h>
#include <mtd/ubi-user.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>

#include "client/clock.h"
#include "client/db_check.h"
#include "client/fifo.h"
#include "client/locked_file.h"
#include "client/register.h"
#include "voq/pulse_note.h"
#include "voq/reg_range.h"

SimControl* Plc;

namespace
{
constexpr const char* PlcFile = "/tmp/plc";
constexpr const char* LogFile = "/tmp/log";
constexpr std::uint64_t SrwBytes = 20000;
constexpr unsigned MostLogLines = 40;
pid_t Service;

// What the machine was started with: plug=STORAGE,SEED,OPTIONS
struct Task {
    char storage[16] = {};  // ubifs, ext4, or format: make a file system on the flash
    unsigned seed = 0;
    char options[32] = {};  // of the mount; "nosync": the service's syncs do nothing
};

void Check(bool done, const std::string& what)
{
    if (!done) throw voq::SystemError(what, errno);
}

Task ReadTask()
{
    std::ifstream line("/proc/cmdline");
    Task task;
    for (std::string word; line >> word;) {
        std::sscanf(word.c_str(), "plug=%15[^,],%u,%31s", task.storage, &task.seed, task.options);
    }
    return task;
}

void MountSystem()
{
    mount("proc", "/proc", "proc", 0, nullptr);
    mount("sysfs", "/sys", "sysfs", 0, nullptr);
    mount("tmpfs", "/tmp", "tmpfs", 0, nullptr);
    mount("devtmpfs", "/dev", "devtmpfs", 0, nullptr);
    const int console = open("/dev/console", O_RDWR);
    termios line = {};
    tcgetattr(console, &line);
    line.c_lflag &= ~static_cast<tcflag_t>(ECHO);  // what wakes the emulator would show in the middle of a line
    tcsetattr(console, TCSANOW, &line);
    for (int descriptor = 0; descriptor <= 2; ++descriptor) dup2(console, descriptor);
    setvbuf(stdout, nullptr, _IOLBF, 0);
}

void MountStorage(const Task& task)
{
    const bool disk = std::strcmp(task.storage, "ext4") == 0;
    const char* options = std::strcmp(task.options, "nosync") == 0 ? "" : task.options;
    const int done = disk ? mount("/dev/vda", "/d", "ext4", 0, options) : mount("ubi0:data", "/d", "ubifs", 0, options);
    Check(done == 0, "mount");
}

// A volume over the whole flash, which the file system makes itself at home on, and the service's directories.
void Format(const Task& task)
{
    const int ubi = open("/dev/ubi0", O_RDONLY);
    Check(ubi >= 0, "/dev/ubi0");
    long long blocks = 0, bytes = 0;
    std::ifstream("/sys/class/ubi/ubi0/avail_eraseblocks") >> blocks;
    std::ifstream("/sys/class/ubi/ubi0/eraseblock_size") >> bytes;
    ubi_mkvol_req volume = {};
    volume.vol_id = UBI_VOL_NUM_AUTO;
    volume.alignment = 1;
    volume.bytes = blocks * bytes;
    volume.vol_type = UBI_DYNAMIC_VOLUME;
    volume.name_len = 4;
    std::strcpy(volume.name, "data");
    Check(ioctl(ubi, UBI_IOCMKVOL, &volume) == 0, "UBI volume");
    MountStorage(task);
    Check(mkdir("/d/user", 0777) == 0 && mkdir("/d/rcp", 0777) == 0, "directories");
    Check(umount("/d") == 0, "unmount");
    Say("formatted", true);
}

// All bits that may be pulsed are set: whatever the service puts back shows.
void MakePlc()
{
    const int file = open(PlcFile, O_RDWR | O_CREAT, 0666);
    Check(file >= 0 && ftruncate(file, sizeof(SimControl)) == 0, PlcFile);
    void* memory = mmap(nullptr, sizeof(SimControl), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    Check(memory != MAP_FAILED, PlcFile);
    close(file);
    Plc = static_cast<SimControl*>(memory);
    std::memset(Plc->registers[PulseStation][PulseArea], 1, PulseBits);
}

// The files as the cut left them: how many ranges there are, who was refused before, what is cut short, the values.
void LookBefore()
{
    const voq::OrgImage org{voq::ReadLocked(Port.Org()).value_or(voq::Bytes{})};
    Say("records " + std::to_string(org.RecordsInFile()));
    DIR* const directory = opendir(Port.Dir().c_str());
    if (directory == nullptr) return;
    while (const dirent* entry = readdir(directory)) {
        if (std::string(entry->d_name).ends_with(".bad")) Say(std::string("fault there is a ") + entry->d_name);
    }
    closedir(directory);
    const std::uint64_t srw = voq::FileSize(Port.Srw()).value_or(SrwBytes);
    if (srw != SrwBytes) Say("fault srw0.dat has " + std::to_string(srw) + " bytes");
    const voq::Bytes data = voq::ReadLocked(Port.Data()).value_or(voq::Bytes{});
    for (std::uint32_t i = 0; i < org.RecordsInFile(); ++i) {
        const OrgNode node = *org.Record(OrgRecordOffset(i));
        const auto value = voq::RecordAt<std::uint32_t>(data, node.dataoffset);
        if (node.state == 1 && value && *value != 0) Say("v " + NameOf(node.key) + " " + std::to_string(*value));
    }
}

// Its output goes to the file, if one is given.
pid_t Start(bool syncs, const char* log, std::vector<const char*> words)
{
    if (!syncs) setenv("LD_PRELOAD", "/lib/nosync.so", 1);
    const pid_t process = fork();
    Check(process >= 0, "fork");
    if (process == 0) {
        const int output = log == nullptr ? 1 : open(log, O_WRONLY | O_CREAT | O_APPEND, 0666);
        dup2(output, 1);
        dup2(output, 2);
        words.push_back(nullptr);
        execv(words[0], const_cast<char* const*>(words.data()));
        _exit(127);
    }
    unsetenv("LD_PRELOAD");
    return process;
}

// What the service said at its start, or last.
void SayLog(bool last)
{
    std::ifstream log(LogFile);
    std::deque<std::string> lines;
    for (std::string line; (last || lines.size() < MostLogLines) && std::getline(log, line);) {
        if (!line.starts_with("*VOQ*")) continue;
        lines.push_back(line.substr(0, line.find('\r')));
        if (lines.size() > MostLogLines) lines.pop_front();
    }
    for (const std::string& line : lines) Say("log " + line);
}

bool NoPulseNoted()
{
    const voq::Bytes notes = voq::ReadLocked(Port.Dir() + "pulses").value_or(voq::Bytes{});
    for (std::size_t at = 0; at < notes.size(); at += sizeof(PulseNote)) {
        const auto note = voq::RecordAt<PulseNote>(notes, at);
        if (note && note->inuse == 1 && note->check == PulseNoteCheck(*note)) return false;
    }
    return true;
}

std::vector<RegKey> LookBehind()
{
    std::vector<RegKey> known;
    const voq::Snapshot files = voq::TakeSnapshot(Port);
    for (const voq::Finding& finding : voq::CheckSnapshot(files)) {
        if (finding.severity == voq::Severity::Violation) Say("fault " + finding.file + ": " + finding.text);
    }
    for (const voq::OrgRecord& record : voq::WalkChain(files.org).records) {
        Say("has " + NameOf(record.node.key));
        known.push_back(record.node.key);
    }
    WaitFor("the end of the pulses", NoPulseNoted);
    for (unsigned bit = 0; bit < PulseBits; ++bit) {
        if (Plc->registers[PulseStation][PulseArea][bit] == 0) Say("back " + std::to_string(bit));
    }
    return known;
}

void Run(const Task& task)
{
    const voq::LockPatience patience{std::chrono::milliseconds(WaitMs)};
    Check(mkdir("/d", 0777) == 0 || errno == EEXIST, "/d");
    if (std::strcmp(task.storage, "format") == 0) return Format(task);
    MountStorage(task);
    Say("mounted");
    MakePlc();
    LookBefore();
    const std::int64_t begin = voq::NowMicroseconds();
    Say("start", true);
    setenv("VOQ_SIM", PlcFile, 1);
    const bool syncs = std::strcmp(task.options, "nosync") != 0;
    const std::string seed = std::to_string(task.seed);
    Start(syncs, nullptr, {"/spool", "/d/spool", seed.c_str()});
    Service = Start(syncs, LogFile, {"/voq", "/ophmi.bin", "0", "/drv", "/d/user", "/d/rcp"});
    WaitFor("the service", [] { return voq::FifoHasReader(Port.MekFifo()) && voq::FifoHasReader(Port.GuiFifo()); });
    Say("up " + std::to_string((voq::NowMicroseconds() - begin) / 1000));
    SayLog(false);
    const std::vector<RegKey> known = LookBehind();
    Say("checked", true);
    Work(task.seed, known);
}
}  // namespace

void Say(const std::string& line, bool out)
{
    std::printf("@%s\n", line.c_str());
    if (out) tcdrain(STDOUT_FILENO);
}

std::string NameOf(const RegKey& key)
{
    return voq::Expression({key, voq::TypeOfSize(RegElemSize(&key))});
}

void WaitFor(const std::string& what, const std::function<bool()>& there)
{
    const std::int64_t end = voq::NowMicroseconds() + std::int64_t{WaitMs} * 1000;
    while (!there()) {
        int status = 0;
        if (const pid_t ended = waitpid(-1, &status, WNOHANG); ended > 0) {
            throw voq::Error((ended == Service ? "the service ended with " : "the spool ended with ") +
                             std::to_string(status));
        }
        if (voq::NowMicroseconds() > end) throw voq::Error("waited in vain for " + what);
        usleep(500);
    }
}

int main()
{
    signal(SIGPIPE, SIG_IGN);
    MountSystem();
    try {
        Run(ReadTask());
    } catch (const voq::Error& error) {
        SayLog(true);
        Say(std::string("fault ") + error.what());
    }
    Say("end", true);
    sync();
    reboot(RB_POWER_OFF);
    for (;;) pause();
}
