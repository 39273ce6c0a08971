// The real service with the simulator driver, in a folder of its own on the memory file system, and one client that
// writes one-shot requests into its FIFO and takes the answers away. For benchmarks; single-threaded but for Send.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "report.h"
#include "sim_control.h"
#include "voq/project_file.h"
#include "voq/request.h"
#include "voq/rt_item.h"

using Bytes = std::vector<unsigned char>;

// Looks every millisecond until the condition holds, for ten seconds at most.
template <typename Condition>
void Await(Condition condition, const char* what)
{
    for (int looks = 0; !condition(); ++looks) {
        if (looks == 10000) Fail(what);
        usleep(1000);
    }
}

inline RegKey Words(std::uint8_t plcno, std::uint16_t regid, std::uint32_t addr, std::uint16_t width = 1)
{
    return {1u << REG_FLAG_PRIORITY_SHIFT, 0, 1, plcno, 0x22, regid, width, addr, 0};
}

// A frame behind those already in `stream`.
inline void AddFrame(Bytes& stream, RequestCommand command, const RegKey& key, std::uint16_t fileno,
                     const Bytes& payload = {})
{
    const RegRequest request{key, static_cast<std::uint8_t>(command), 0, fileno, 0};
    const std::size_t length = FrameMinBytes + payload.size();
    const auto* bytes = reinterpret_cast<const unsigned char*>(&request);
    stream.insert(stream.end(),
                  {FrameMarker, static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8)});
    stream.insert(stream.end(), bytes, bytes + sizeof request);
    stream.insert(stream.end(), payload.begin(), payload.end());
}

class LiveService
{
public:
    // `pause` in milliseconds; word limit 64, gap 4.
    LiveService(std::uint8_t pause, bool packed)
    {
        char unique[] = "/dev/shm/voqXXXXXX";
        if (mkdtemp(unique) == nullptr) Fail("mkdtemp");
        folder_ = unique;
        for (const char* name : {"/d/Serial", "/u", "/r"}) std::filesystem::create_directories(folder_ + name);
        std::filesystem::create_symlink(VOQ_SIM, folder_ + "/d/Serial/drv_1.so");
        WriteProject(pause, packed);
        MapSim();
        Start();
        const std::string fifo = folder_ + "/u/com_1/mekfifo";
        Await([&] { return (fifo_ = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }, "the service does not start");
        fcntl(fifo_, F_SETFL, 0);
        watch_ = inotify_init1(IN_NONBLOCK);
        if (inotify_add_watch(watch_, (folder_ + "/u/com_1").c_str(), IN_CLOSE_WRITE) < 0) Fail("inotify");
    }
    ~LiveService()
    {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        for (const int descriptor : {fifo_, watch_}) close(descriptor);
        munmap(sim_, sizeof(SimControl));
        std::filesystem::remove_all(folder_);
    }
    LiveService(const LiveService&) = delete;
    LiveService& operator=(const LiveService&) = delete;

    [[nodiscard]] std::string PortFolder() const { return folder_ + "/u/com_1"; }
    [[nodiscard]] SimControl& Sim() const { return *sim_; }
    [[nodiscard]] std::vector<SimCall> CallsSince(std::uint32_t sequence) const
    {
        std::vector<SimCall> calls;
        for (std::uint32_t n = sequence + 1; n <= sim_->logged; ++n) calls.push_back(SimLoggedCall(*sim_, n));
        for (const SimCall& call : calls) {
            if (call.sequence != ++sequence) Fail("the driver's log has been overwritten");
        }
        return calls;
    }

    void Send(const Bytes& stream) const
    {
        for (std::size_t sent = 0; sent < stream.size();) {
            const ssize_t n = write(fifo_, stream.data() + sent, stream.size() - sent);
            if (n <= 0) Fail("write to the FIFO");
            sent += static_cast<std::size_t>(n);
        }
    }

    // Holds the next driver call, so that requests gather.
    void Hold() const
    {
        sim_->failStation = SimAllStations;
        sim_->failCount = SimForever;
        sim_->failure = SIM_FAIL_HANG;
        Await([this] { return sim_->hanging != 0; }, "no driver call to hold");
    }
    // Lets it go when all that was sent has been listed.
    void Release() const
    {
        int unread = 1;
        Await([&] { return ioctl(fifo_, FIONREAD, &unread) == 0 && unread == 0; }, "requests are not taken in");
        usleep(50000);
        sim_->failure = SIM_FAIL_NONE;
    }

    struct Answer {
        RtItem item;
        double whenUs;
    };
    // Waits for answers and takes them away; empty when there was none for `timeoutMs`.
    [[nodiscard]] std::vector<Answer> TakeAnswers(int timeoutMs) const
    {
        std::vector<Answer> answers;
        alignas(inotify_event) char events[16384];
        pollfd ready{watch_, POLLIN, 0};
        const double end = NowUs() + 1000.0 * timeoutMs;
        while (answers.empty() && NowUs() < end && poll(&ready, 1, timeoutMs) == 1) {
            const double now = NowUs();
            const ssize_t got = read(watch_, events, sizeof events);
            for (ssize_t at = 0; at < got;) {
                inotify_event event;
                std::memcpy(&event, events + at, sizeof event);
                const char* name = events + at + sizeof event;
                at += static_cast<ssize_t>(sizeof event + event.len);
                if (event.len == 0 || name[0] < '0' || name[0] > '9') continue;
                Answer answer{{}, now};
                if (TakeFile(name, answer.item)) answers.push_back(answer);
            }
        }
        return answers;
    }

private:
    // False when the file holds no whole answer, or has been taken already.
    bool TakeFile(const char* name, RtItem& item) const
    {
        const std::string path = folder_ + "/u/com_1/" + name;
        const int file = open(path.c_str(), O_RDONLY);
        if (file < 0) return false;
        unsigned char bytes[sizeof item + 256];
        const ssize_t got = read(file, bytes, sizeof bytes);
        close(file);
        std::memcpy(&item, bytes, sizeof item);
        const std::size_t value = item.result == PLC_SUCCESS && item.command == 3 ? item.key.width * 2u : 0;
        if (got != static_cast<ssize_t>(sizeof item + value)) return false;
        unlink(path.c_str());
        return true;
    }

    void WriteProject(std::uint8_t pause, bool packed) const
    {
        ComInfoRecord com{};
        com.flags = packed ? 0 : 1u << 17;
        com.portNo = 1;
        com.wordLimit = 64;
        com.bitLimit = 256;
        com.wordGap = com.bitGap = 4;
        com.pause = pause;
        constexpr std::uint32_t table = 24, comm = 100, segment = 180, registers = 196;
        unsigned char file[200] = {};
        const auto put = [&file](std::uint32_t at, std::uint32_t value) {
            std::memcpy(file + at, &value, sizeof value);
        };
        put(ProjectSegmentTable, table);
        put(table + SegmentComm, comm);
        put(table + SegmentRegister, segment);
        put(comm, 1);
        put(comm + 4, 8);
        std::memcpy(file + comm + 8, &com, sizeof com);
        put(segment, registers);
        std::FILE* stream = std::fopen((folder_ + "/p").c_str(), "wb");
        if (stream == nullptr || std::fwrite(file, sizeof file, 1, stream) != 1) Fail("project file");
        std::fclose(stream);
    }

    void MapSim()
    {
        const std::string path = folder_ + "/sim";
        const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
        if (file < 0 || ftruncate(file, sizeof(SimControl)) != 0) Fail("simulator file");
        void* mapped = mmap(nullptr, sizeof(SimControl), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (mapped == MAP_FAILED) Fail("mmap");
        close(file);
        sim_ = static_cast<SimControl*>(mapped);
    }

    void Start()
    {
        process_ = fork();
        if (process_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("VOQ_SIM", (folder_ + "/sim").c_str(), 1);
        if (std::freopen("/dev/null", "w", stdout) == nullptr) _exit(1);
        execl(VOQ_SERVICE, "voq", (folder_ + "/p").c_str(), "0", (folder_ + "/d").c_str(), (folder_ + "/u").c_str(),
              (folder_ + "/r").c_str(), nullptr);
        _exit(1);
    }

    std::string folder_;
    SimControl* sim_ = nullptr;
    pid_t process_ = -1;
    int fifo_ = -1, watch_ = -1;
};
