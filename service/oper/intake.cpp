// Request intake, on the two service threads. A step waits for bytes, then for the locks of what it changes.
#include "oper/intake.h"

#include <cstdio>
#include <cstring>

#include "arch/clock.h"
#include "arch/fs.h"
#include "comm/plc_driver.h"
#include "list/fast_list.h"
#include "list/log_on_off.h"
#include "list/rt_list.h"
#include "oper/frame.h"
#include "state/counters.h"
#include "state/paths.h"
#include "stats/heartbeat.h"
#include "stats/intake_stats.h"

std::int32_t GuiFifo_fd = -1, MekFifo_fd = -1;
std::int32_t GuiFifo_index, MekFifo_index;
unsigned char guififo_buf[IntakeBufferBytes];
unsigned char mekfifo_buf[IntakeBufferBytes];

namespace
{
constexpr std::size_t ReadBytes = 16384;

// What tells the two FIFOs apart.
struct Intake {
    std::int32_t* descriptor;
    std::int32_t* held;
    unsigned char* buffer;
    bool isGui;  // serves reload frames, counts log-ons, goes on with what it holds after a failed read
    const char* overflow;
};

constexpr Intake Gui = {&GuiFifo_fd, &GuiFifo_index, guififo_buf, true, "gui fifo too long index=%d,nread=%d\n"};
constexpr Intake Mek = {&MekFifo_fd, &MekFifo_index, mekfifo_buf, false, "mekfifo too long index=%d,nread=%d\n"};

std::span<const unsigned char> HeldFrom(const Intake& intake, std::size_t position)
{
    return {intake.buffer + position, static_cast<std::size_t>(*intake.held) - position};
}

void LogOnOff(const RegRequest& request, OrgMode mode)
{
    if (request.orgoffset == 0) {
        LogOnOff2OrgList(&request, mode, request.fileno);
    } else if (mode == OrgMode::LogOn) {
        AddFastIndex(request.key, request.fileno, request.orgoffset);
    } else {
        DelFastIndex(request.fileno);
    }
}

void Dispatch(const Intake& intake, const Frame& frame)
{
    const RegRequest& request = frame.request;
    CountArrival(Arrival::Frame);
    const auto payloadBytes = static_cast<std::uint32_t>(frame.payload.size());
    switch (static_cast<RequestCommand>(request.cmd)) {
        case RequestCommand::LogOn:
            CountArrival(Arrival::LogOn);
            if (intake.isGui) LogOnAmount.fetch_add(1, std::memory_order_relaxed);
            LogOnOff(request, OrgMode::LogOn);
            break;
        case RequestCommand::LogOff:
            CountArrival(Arrival::LogOff);
            if (intake.isGui) LogOnAmount.fetch_sub(1, std::memory_order_relaxed);
            LogOnOff(request, OrgMode::LogOff);
            break;
        case RequestCommand::Read:
        case RequestCommand::Write:
            AddRtList(request, request.cmd, request.fileno, frame.payload.data(), payloadBytes);
            break;
        case RequestCommand::ReadChangeWrite:
            AddRtList(request, static_cast<std::uint16_t>(request.subcmd * 256 + request.cmd), request.fileno,
                      frame.payload.data(), payloadBytes);
            break;
    }
}

// The image is taken from the buffer as it stands: a reload at its start does not wait for its whole frame.
void Reload(const Intake& intake)
{
    ComInfoRecord image;
    std::memcpy(&image, intake.buffer + FrameHeaderBytes, sizeof image);
    std::puts("*VOQ*reload cominfo\r");
    std::printf("*VOQ*IP=0x%x, PORT=%d\r\n", image.baudOrAddress, image.dataBits);
    CountArrival(Arrival::Reload);
    ReloadDriver(image);
    *intake.held = 0;
}

// Keeps what is behind `position` for the next step, at the start of the buffer.
void KeepFrom(const Intake& intake, std::size_t position)
{
    const auto rest = HeldFrom(intake, position);
    std::memmove(intake.buffer, rest.data(), rest.size());
    *intake.held = static_cast<std::int32_t>(rest.size());
}

void DropFrom(const Intake& intake, std::size_t position)
{
    std::printf("*VOQ*%s fifo: no frame at byte %d, %d bytes dropped\r\n", intake.isGui ? "gui" : "mek",
                static_cast<int>(position), *intake.held - static_cast<int>(position));
    CountDropped(*intake.held - static_cast<std::int32_t>(position));
    *intake.held = 0;
}

// Serves whole frames from the start of the buffer. A first byte that is no marker stays, as does all behind it: only
// the overflow rule clears such bytes.
void ServeFrames(const Intake& intake)
{
    std::size_t position = 0;
    while (position < static_cast<std::size_t>(*intake.held)) {
        Frame frame;
        const FrameState state = CutFrame(HeldFrom(intake, position), &frame);
        if (state == FrameState::Whole) {
            Dispatch(intake, frame);
            position += frame.length;
        } else if (state == FrameState::Incomplete) {
            KeepFrom(intake, position);
            return;
        } else if (state == FrameState::Reload && intake.isGui) {
            KeepFrom(intake, position);
            // Behind served frames one that is not whole yet waits: what lies behind it is old.
            if (position == 0 || *intake.held >= static_cast<std::int32_t>(ReloadFrameBytes)) Reload(intake);
            return;
        } else if (position == 0 && state != FrameState::Damaged) {
            return;
        } else {
            DropFrom(intake, position);
            return;
        }
    }
    *intake.held = 0;
}

void CheckRtList(const Intake& intake)
{
    unsigned char bytes[ReadBytes];
    Waiting waiting(StatsWait::Clients);
    const auto got = static_cast<std::int32_t>(ReadFifo(*intake.descriptor, bytes, sizeof bytes));
    waiting.End();
    if (got < 0) {
        SleepSeconds(1);
        if (!intake.isGui) {
            std::printf("Mek fifo nread=%d\n", got);
            return;
        }
    } else {
        if (got == 0) SleepSeconds(1);  // no FIFO: one that the service writes to itself has no end
        if (*intake.held + got > IntakeBufferBytes) {
            std::printf(intake.overflow, *intake.held, got);
            CountDropped(*intake.held + got);
            *intake.held = 0;
            return;
        }
        std::memcpy(intake.buffer + *intake.held, bytes, static_cast<std::size_t>(got));
        *intake.held += got;
    }
    if (*intake.held > 0) ServeFrames(intake);
}

int OpenIntake(const char* path)
{
    const Waiting waiting(StatsWait::Clients);
    return OpenFifo(path);
}

[[noreturn]] void Serve(const Intake& intake, const char* path)
{
    NameThread(intake.isGui ? StatsThreadOf::GuiIntake : StatsThreadOf::MekIntake);
    *intake.held = 0;
    while (true) {
        BeginTurn();
        // One that cannot be opened is tried again after each step, which fails and pauses.
        if (*intake.descriptor < 0) *intake.descriptor = OpenIntake(path);
        CheckRtList(intake);
        ShowIntake();
    }
}
}  // namespace

void CheckGuiRtList()
{
    CheckRtList(Gui);
}

void CheckMekRtList()
{
    CheckRtList(Mek);
}

void gui_service_thread()
{
    Serve(Gui, GuiFifo);
}

void mek_service_thread()
{
    Serve(Mek, MekFifo);
}
