// The statistics of a port: the file `stats` in the port directory, which the service makes anew at each start, maps
// and never forces to the disk. Nobody needs it to use the port. Counters begin at 0 with the service: who adds up over
// restarts goes by `started`.
//
// The file may be read while it changes. It is a header, which never changes, and sections behind it. A section begins
// with its `sequence` and has one writer at a time: odd while that one is at work, raised by two with each change.
//   writer  sequence + 1, relaxed; release fence; the words behind it, relaxed; sequence + 2, release
//   reader  sequence, acquire; the words behind it, relaxed; acquire fence; sequence, relaxed: what was copied is one
//           state of the section when both are the same even number, else the copy is made again
// A word is 32 bits, and every one is stored and loaded whole. Sections are apart in time from one another; a number
// that takes two words is whole in a copy that is.
//
// Counters have 64 bits and do not wrap in a box's life. Times: "wall" is microseconds since 1970, "mono" microseconds
// of the system's monotonic clock (CLOCK_MONOTONIC), "us" a length of time in microseconds, 32 bits of it stop at their
// top. The fields of each record, with their meaning, are listed in docs/files.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "voq/com_info.h"
#include "voq/reg_key.h"

inline constexpr std::uint32_t StatsMagic = 0x53514F56;  // "VOQS"
inline constexpr std::uint32_t StatsVersion = 1;         // of this layout; a reader takes no other

struct StatsHeader {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t size;         // of the file
    std::uint32_t pid;          // of the service
    std::int64_t started;       // wall; start of the service
    std::uint64_t startedMono;  // mono; the same moment
    std::uint32_t portIndex;    // of the project
    std::uint32_t reserved;
};

static_assert(sizeof(StatsHeader) == 40 && std::is_trivially_copyable_v<StatsHeader>);
static_assert(offsetof(StatsHeader, version) == 4 && offsetof(StatsHeader, size) == 8);
static_assert(offsetof(StatsHeader, pid) == 12 && offsetof(StatsHeader, started) == 16);
static_assert(offsetof(StatsHeader, startedMono) == 24 && offsetof(StatsHeader, portIndex) == 32);
static_assert(offsetof(StatsHeader, reserved) == 36);

// What the service goes by now; the record changes with a reload frame or the operator's settings. Written by whoever
// changes it, under the driver lock.
struct StatsPort {
    std::uint32_t sequence;
    ComInfoRecord comInfo;     // as the service uses it
    std::uint32_t pause;       // ms between turns
    std::uint32_t packing;     // 1 packed polling, 0 not
    std::uint32_t driver;      // 1 a driver is loaded, 0 none
    std::uint16_t panelOrder;  // the panel's byte-order word
    std::uint16_t reserved;
};

static_assert(sizeof(StatsPort) == 80 && std::is_trivially_copyable_v<StatsPort>);
static_assert(offsetof(StatsPort, comInfo) == 4 && offsetof(StatsPort, pause) == 64);
static_assert(offsetof(StatsPort, packing) == 68 && offsetof(StatsPort, driver) == 72);
static_assert(offsetof(StatsPort, panelOrder) == 76 && offsetof(StatsPort, reserved) == 78);

// The threads of the service, by their place in StatsFile::threads.
enum class StatsThreadOf : std::uint32_t { Main, GuiIntake, MekIntake, Watchdog };
inline constexpr std::uint32_t StatsThreads = 4;

// What a thread waits for. A thread that waits for none of these works, or waits for another thread of the service.
enum class StatsWait : std::uint32_t {
    Nothing = 0,
    Driver = 1,  // in a driver command
    Lock = 2,    // for another process's lock on `file`
    Pause = 3,   // between turns, before another attempt
    Clients = 4  // for bytes in a FIFO
};

// The heartbeat of one thread, written by it. Turns: of the main loop; steps of an intake; writes of the watchdog.
struct StatsThread {
    std::uint32_t sequence;
    std::uint32_t wait;         // see StatsWait
    std::uint64_t since;        // mono; when `wait` took this value
    std::uint64_t turns;        // begun so far
    std::uint64_t turnMono;     // mono; when the turn began
    std::int64_t turnWall;      // wall; the same moment
    std::uint64_t lockWaits;    // waits for another process's lock that had to wait
    std::uint64_t lockTime;     // us; all of them together
    std::uint32_t longestLock;  // us
    std::uint32_t reserved;
    RegKey key;     // of the read or write, while a driver is waited for; all zeros for other commands
    char file[88];  // path, while a lock is waited for, else empty; ends with a zero
};

inline constexpr std::uint32_t StatsFileNameBytes = 88;  // a path of the service with the longest name in it

static_assert(sizeof(StatsThread) == 176 && std::is_trivially_copyable_v<StatsThread>);
static_assert(offsetof(StatsThread, wait) == 4 && offsetof(StatsThread, since) == 8);
static_assert(offsetof(StatsThread, turns) == 16 && offsetof(StatsThread, turnMono) == 24);
static_assert(offsetof(StatsThread, turnWall) == 32 && offsetof(StatsThread, lockWaits) == 40);
static_assert(offsetof(StatsThread, lockTime) == 48 && offsetof(StatsThread, longestLock) == 56);
static_assert(offsetof(StatsThread, reserved) == 60 && offsetof(StatsThread, key) == 64);
static_assert(offsetof(StatsThread, file) == 88 && sizeof(StatsThread::file) == StatsFileNameBytes);

// What one client FIFO brought, written by its intake thread: first the GUI's, then the other.
struct StatsIntake {
    std::uint32_t sequence;
    std::uint32_t longestQueue;  // most one-shots of both FIFOs that were listed when this one listed another
    std::uint64_t frames;        // whole request frames
    std::uint64_t logOns;
    std::uint64_t logOffs;
    std::uint64_t listed;          // one-shots taken into the list
    std::uint64_t refused;         // one-shots answered at once with code 3
    std::uint64_t refusedTimeout;  // the same with code 4
    std::uint64_t reloads;         // reload frames
    std::uint64_t droppedBytes;    // no frame, or too many
};

inline constexpr std::uint32_t StatsIntakes = 2;

static_assert(sizeof(StatsIntake) == 72 && std::is_trivially_copyable_v<StatsIntake>);
static_assert(offsetof(StatsIntake, longestQueue) == 4 && offsetof(StatsIntake, frames) == 8);
static_assert(offsetof(StatsIntake, logOns) == 16 && offsetof(StatsIntake, logOffs) == 24);
static_assert(offsetof(StatsIntake, listed) == 32 && offsetof(StatsIntake, refused) == 40);
static_assert(offsetof(StatsIntake, refusedTimeout) == 48 && offsetof(StatsIntake, reloads) == 56);
static_assert(offsetof(StatsIntake, droppedBytes) == 64);

// One kind of pass. A read is one planned read; the driver may be called several times for it, for its chunks and, in
// the real-time pass, for its attempts.
struct StatsPass {
    std::uint64_t passes;
    std::uint64_t reads;
    std::uint64_t ranges;   // that the reads were made for; of the real-time pass: requests
    std::uint64_t wanted;   // elements of those ranges, each once; of the real-time pass those of every request
    std::uint64_t read;     // elements asked for, gaps too
    std::uint32_t longest;  // ranges in one read
    std::uint32_t reserved;
};

static_assert(sizeof(StatsPass) == 48 && std::is_trivially_copyable_v<StatsPass>);
static_assert(offsetof(StatsPass, reads) == 8 && offsetof(StatsPass, ranges) == 16);
static_assert(offsetof(StatsPass, wanted) == 24 && offsetof(StatsPass, read) == 32);
static_assert(offsetof(StatsPass, longest) == 40 && offsetof(StatsPass, reserved) == 44);

inline constexpr std::uint32_t StatsNoStation = 0xFFFFFFFF;

// The rounds of polling: one goes once through the subscribed ranges, from its first read until it comes to the end of
// the list. A way through the list on which nothing was due is none. All but the first describe the last whole round.
struct StatsRound {
    std::uint64_t rounds;
    std::uint32_t length;       // us; with its pauses and what other passes took
    std::uint32_t reads;        // planned reads
    std::uint32_t ranges;       // in those reads
    std::uint32_t driverTime;   // us; in driver calls for those reads
    std::uint32_t lostTime;     // us of it; in calls that ended with a time-out
    std::uint32_t lostStation;  // that most of it was lost for; StatsNoStation when none was
};

static_assert(sizeof(StatsRound) == 32 && std::is_trivially_copyable_v<StatsRound>);
static_assert(offsetof(StatsRound, length) == 8 && offsetof(StatsRound, reads) == 12);
static_assert(offsetof(StatsRound, ranges) == 16 && offsetof(StatsRound, driverTime) == 20);
static_assert(offsetof(StatsRound, lostTime) == 24 && offsetof(StatsRound, lostStation) == 28);

// The main loop's work, written by it at the end of a turn that changed something.
struct StatsLoop {
    std::uint32_t sequence;
    std::uint32_t reserved;
    StatsPass realTime;
    StatsPass fast;
    StatsPass org;
    std::uint64_t slaveLoops;       // turns of a slave's driver
    std::uint64_t answeredOk;       // listed one-shots answered with code 1
    std::uint64_t answeredTimeout;  // with code 2
    std::uint64_t answeredError;    // with code 3
    std::uint32_t listed;           // one-shots in the list now
    std::uint32_t subscribed;       // ranges in the fast list now
    StatsRound round;
};

static_assert(sizeof(StatsLoop) == 224 && std::is_trivially_copyable_v<StatsLoop>);
static_assert(offsetof(StatsLoop, reserved) == 4 && offsetof(StatsLoop, realTime) == 8);
static_assert(offsetof(StatsLoop, fast) == 56 && offsetof(StatsLoop, org) == 104);
static_assert(offsetof(StatsLoop, slaveLoops) == 152 && offsetof(StatsLoop, answeredOk) == 160);
static_assert(offsetof(StatsLoop, answeredTimeout) == 168 && offsetof(StatsLoop, answeredError) == 176);
static_assert(offsetof(StatsLoop, listed) == 184 && offsetof(StatsLoop, subscribed) == 188);
static_assert(offsetof(StatsLoop, round) == 192);

// Answers by their time: answers[0] under 1 us, answers[b] from 2^(b-1) us on and under 2^b us, the last all above.
inline constexpr std::uint32_t StatsTimeSteps = 32;

// The place of an answer after `us` in such a table.
constexpr std::uint32_t StatsTimeStep(std::uint64_t us)
{
    std::uint32_t step = 0;
    while (step < StatsTimeSteps - 1 && us >> step != 0) ++step;
    return step;
}

// One driver command. Calls that ended ok or refused are answers.
struct StatsCalls {
    std::uint64_t calls;
    std::uint64_t ok;
    std::uint64_t timeouts;
    std::uint64_t errors;
    std::uint64_t refused;     // the device does not know the range
    std::uint64_t elements;    // asked for, each attempt
    std::uint64_t answerTime;  // us; of all answers together
    std::uint64_t lostTime;    // us; of all calls that ended with a time-out
    std::uint32_t longest;     // us; of an answer
    std::uint32_t reserved;
    std::uint64_t answers[StatsTimeSteps];
};

static_assert(sizeof(StatsCalls) == 328 && std::is_trivially_copyable_v<StatsCalls>);
static_assert(offsetof(StatsCalls, ok) == 8 && offsetof(StatsCalls, timeouts) == 16);
static_assert(offsetof(StatsCalls, errors) == 24 && offsetof(StatsCalls, refused) == 32);
static_assert(offsetof(StatsCalls, elements) == 40 && offsetof(StatsCalls, answerTime) == 48);
static_assert(offsetof(StatsCalls, lostTime) == 56 && offsetof(StatsCalls, longest) == 64);
static_assert(offsetof(StatsCalls, reserved) == 68 && offsetof(StatsCalls, answers) == 72);

// The driver's reads and writes, written by the main loop after each.
struct StatsDriver {
    std::uint32_t sequence;
    std::uint32_t reserved;
    StatsCalls reads;
    StatsCalls writes;
};

static_assert(sizeof(StatsDriver) == 664 && std::is_trivially_copyable_v<StatsDriver>);
static_assert(offsetof(StatsDriver, reserved) == 4 && offsetof(StatsDriver, reads) == 8);
static_assert(offsetof(StatsDriver, writes) == 336);

// One PLC station, its reads and writes together; written by the main loop after each.
struct StatsStation {
    std::uint32_t sequence;
    std::uint32_t longest;  // us; of an answer
    std::uint64_t calls;
    std::uint64_t ok;
    std::uint64_t timeouts;
    std::uint64_t errors;
    std::uint64_t refused;
    std::uint64_t answerTime;     // us; of all answers, ok and refused: divided by their number the mean
    std::uint64_t lostTime;       // us; of all calls that ended with a time-out
    std::int64_t lastGood;        // wall; of the last answer, 0 for none
    std::int64_t lastBad;         // wall; of the last time-out or error, 0 for none
    std::uint32_t lastBadResult;  // the driver's result then
    std::uint32_t longestLost;    // us; of a call that ended with a time-out
};

inline constexpr std::uint32_t StatsStations = 256;  // as many as a key can name

static_assert(sizeof(StatsStation) == 88 && std::is_trivially_copyable_v<StatsStation>);
static_assert(offsetof(StatsStation, longest) == 4 && offsetof(StatsStation, calls) == 8);
static_assert(offsetof(StatsStation, ok) == 16 && offsetof(StatsStation, timeouts) == 24);
static_assert(offsetof(StatsStation, errors) == 32 && offsetof(StatsStation, refused) == 40);
static_assert(offsetof(StatsStation, answerTime) == 48 && offsetof(StatsStation, lostTime) == 56);
static_assert(offsetof(StatsStation, lastGood) == 64 && offsetof(StatsStation, lastBad) == 72);
static_assert(offsetof(StatsStation, lastBadResult) == 80 && offsetof(StatsStation, longestLost) == 84);

// Flags of a subscribed range.
inline constexpr std::uint32_t STATS_RANGE_SUBSCRIBED =
    1;                                                   // the row is in use; all else is left over when it is not set
inline constexpr std::uint32_t STATS_RANGE_REFUSED = 2;  // the device refuses it alone; tried again ever more rarely
inline constexpr std::uint32_t STATS_RANGE_APART = 4;    // learnt: no read joins it with the range `apartFrom`

// One subscribed range, by its slot in the fast list; written under that list's lock. A read is numbered within its
// round.
struct StatsRange {
    std::uint32_t sequence;
    std::uint32_t flags;
    RegKey key;
    std::uint32_t orgOffset;    // its record in the org file; 0 or 0xFFFFFFFF for none
    std::uint16_t fileno;       // of the log-on that made the entry
    std::uint16_t subscribers;  // log-ons less log-offs
    std::uint16_t readNumber;   // the last read that it travelled in, from 1 on; 0: not read since it was logged on
    std::uint16_t readRanges;   // ranges in that read, it too
    std::uint32_t readAddr;     // where that read began
    std::uint16_t readWidth;    // its elements
    std::uint16_t readWanted;   // those of them that a range wants; the others are gaps
    std::uint16_t result;       // of that read, 1 to 3 as in the org file
    std::uint16_t reserved;
    std::int64_t lastRead;       // wall; when that read had ended
    std::uint32_t period;        // us from one read to the next, a running mean over about eight; 0 before the second
    std::uint32_t apartFrom;     // org offset of the neighbour, with STATS_RANGE_APART
    std::uint32_t since;         // wall in whole seconds; when it was logged on
    std::uint32_t refusedSince;  // wall in whole seconds; 0: not refused
};

inline constexpr std::uint32_t StatsRanges = 2048;  // slots of the fast list

static_assert(sizeof(StatsRange) == 80 && std::is_trivially_copyable_v<StatsRange>);
static_assert(offsetof(StatsRange, flags) == 4 && offsetof(StatsRange, key) == 8);
static_assert(offsetof(StatsRange, orgOffset) == 32 && offsetof(StatsRange, fileno) == 36);
static_assert(offsetof(StatsRange, subscribers) == 38 && offsetof(StatsRange, readNumber) == 40);
static_assert(offsetof(StatsRange, readRanges) == 42 && offsetof(StatsRange, readAddr) == 44);
static_assert(offsetof(StatsRange, readWidth) == 48 && offsetof(StatsRange, readWanted) == 50);
static_assert(offsetof(StatsRange, result) == 52 && offsetof(StatsRange, reserved) == 54);
static_assert(offsetof(StatsRange, lastRead) == 56 && offsetof(StatsRange, period) == 64);
static_assert(offsetof(StatsRange, apartFrom) == 68 && offsetof(StatsRange, since) == 72);
static_assert(offsetof(StatsRange, refusedSince) == 76);

struct StatsFile {
    StatsHeader header;
    StatsPort port;
    StatsThread threads[StatsThreads];
    StatsIntake intakes[StatsIntakes];
    StatsLoop loop;
    StatsDriver driver;
    StatsStation stations[StatsStations];
    StatsRange ranges[StatsRanges];
};

static_assert(sizeof(StatsFile) == 188224 && std::is_trivially_copyable_v<StatsFile>);
static_assert(std::has_unique_object_representations_v<StatsFile>, "no padding");
static_assert(offsetof(StatsFile, port) == 40 && offsetof(StatsFile, threads) == 120);
static_assert(offsetof(StatsFile, intakes) == 824 && offsetof(StatsFile, loop) == 968);
static_assert(offsetof(StatsFile, driver) == 1192 && offsetof(StatsFile, stations) == 1856);
static_assert(offsetof(StatsFile, ranges) == 24384);
