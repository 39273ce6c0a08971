// The main loop, on the main thread. Waits in the pauses, the driver calls and the file locks.
#include "voq/main_loop.h"

#include "arch/clock.h"
#include "comm/com_monitor.h"
#include "comm/plc_driver.h"
#include "list/fast_list.h"
#include "list/rt_list.h"
#include "oper/fast_pass.h"
#include "oper/org_pass.h"
#include "oper/rt_pass.h"
#include "state/com_state.h"
#include "state/counters.h"
#include "stats/heartbeat.h"
#include "stats/pass_stats.h"

std::uint32_t DivRt;

namespace
{
constexpr std::uint32_t ChecksEvery = 20;          // turns
constexpr std::uint32_t IdleMicroseconds = 50000;  // nothing to poll; a request ends it
constexpr std::uint32_t DefaultMaxRtList = 3;
constexpr std::uint32_t ManyRequests = 20;  // above it a gateway box serves a share of the list in each pass

void Pause(std::uint32_t microseconds)
{
    const Waiting waiting(StatsWait::Pause);
    SleepMicroseconds(microseconds);
}

bool SlaveMode()
{
    return ComInfo.masterSlaveMode == MODE_SLAVE;
}

std::uint16_t ListedRequests()
{
    const ReadLock lock(rt_rwlock);
    return GuiListHead.count;
}

std::uint16_t Subscriptions()
{
    const ReadLock lock(fast_rwlock);
    return OrgFastListHead.count;
}

void RealTimePass()
{
    if (isHmi == 0) {
        const std::uint32_t listed = ListedRequests();
        MaxRtList = listed <= ManyRequests ? DefaultMaxRtList : listed / 5;
    }
    OperRtList();
}

void FastListPass()
{
    if (pack_disable == 0) {
        OperFastList();
    } else {
        OperFastList_NoPack();
    }
}

// The more the GUI has logged on, the rarer the pass. More log-offs than log-ons count as none.
bool OrgListPassDue(std::uint32_t turn)
{
    const std::int32_t divisor = LogOnAmount.load(std::memory_order_relaxed) / 5 + 1;
    return turn % static_cast<std::uint32_t>(divisor < 1 ? 1 : divisor) == 0;
}

void OrgListPass()
{
    if (pack_disable == 0) {
        OperOrgList();
    } else {
        OperOrgList_NoPack();
    }
}

// The wait of a turn that has nothing to poll.
void Idle()
{
    RequestListed.Clear();
    const std::uint32_t wait = RtIdleMicroseconds(IdleMicroseconds);
    if (wait == 0) return;
    const Waiting waiting(StatsWait::Pause);
    RequestListed.Wait(wait);
}

void MasterTurn(std::uint32_t turn, std::uint32_t orgCount)
{
    if (turn % DivRt == 0) RealTimePass();
    const std::uint16_t subscriptions = Subscriptions();
    CountListed(static_cast<std::uint32_t>(rtDataFileCount.load(std::memory_order_relaxed)), subscriptions);
    if (subscriptions != 0) FastListPass();
    if (orgCount == 0 || LoopReStart != 0) {
        if (subscriptions == 0) Idle();
    } else if (OrgListPassDue(turn)) {
        OrgListPass();
    }
}

void SlaveTurn()
{
    CheckSlaveNo();
    CountSlaveLoop();
    PlcDrvLoop();
}
}  // namespace

void MainLoop(std::uint16_t portIndex, std::uint32_t orgCount)
{
    std::uint32_t turn = 0;
    while (true) {
        BeginTurn();
        if (SlaveMode()) {
            SlaveTurn();
        } else {
            MasterTurn(turn, orgCount);
        }
        ++turn;
        if (turn % ChecksEvery == 0) {
            CheckIfComChg(portIndex);
            CheckStaionEnable();
        }
        ShowPasses();
        if (comIntervals != 0) Pause(comIntervals * 1000);
    }
}
