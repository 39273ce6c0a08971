// One packed read: how it grows over neighbouring ranges, and how its result reaches the register database.
// Main thread. The passes over the fast list and the org list share both; they differ in what they walk, in which
// records they take for candidates, and in where their cursor goes.
#pragma once

#include <cstdint>

#include "database/org_file.h"
#include "state/com_state.h"
#include "voq/org_record.h"
#include "voq/reg_range.h"

// A read to make: the starting record's key with the width of the whole read, and that record's offset.
struct ReadPlan {
    RegKey key;
    std::uint32_t orgOffset;
};

// Limits of the unpacked passes: a read grows only over records of width 0 at its start.
inline constexpr PackLimits UnpackedLimits = {1, 1};

// Holds the value of any read; the passes run one after another on the main thread.
extern unsigned char ReadBuffer[];

// A read while it grows.
class Widening
{
public:
    Widening(const OrgNode& start, std::uint32_t orgOffset, PackLimits limits);

    // False when the starting record alone fills the limit.
    [[nodiscard]] bool CanGrow() const { return plan_.key.width < limits_.length; }
    [[nodiscard]] bool SameGroupAs(const OrgNode& record) const { return SameGroup(record.key, plan_.key); }
    // Takes a due record of the group in; false when the record ends the widening.
    [[nodiscard]] bool Take(const OrgNode& record);
    [[nodiscard]] const ReadPlan& Plan() const { return plan_; }

private:
    ReadPlan plan_;
    PackLimits limits_;
};

// Plans one read from where the cursor stands. False when there is nothing to read. A cursor gives:
//     bool Valid()              a record is at hand (Node, Offset); false at the end of what it walks
//     const OrgNode& Node(), std::uint32_t Offset(), bool Due(), void Next()
//     void SearchEnded()        the walk ended without a due record
//     void StopHere()           the next pass starts at the cursor's place
//     void WalkEnded()          the widening ran into the end
// The starting record is looked at again when the read grows; when it ends the widening by itself, the cursor still
// moves on behind it.
template <typename Cursor>
bool PlanRead(Cursor& at, bool packed, ReadPlan& plan)
{
    while (at.Valid() && !at.Due()) at.Next();
    if (!at.Valid()) {
        at.SearchEnded();
        return false;
    }
    const std::uint32_t start = at.Offset();
    Widening widening(at.Node(), start, packed ? PortPackLimits(at.Node().key) : UnpackedLimits);
    if (!widening.CanGrow()) {
        at.Next();
        at.StopHere();
    } else {
        bool first = true;
        bool more = true;
        while (more && at.Valid()) {
            if (!widening.SameGroupAs(at.Node())) break;
            more = !at.Due() || widening.Take(at.Node());
            if (more || first) at.Next();
            first = false;
        }
        if (at.Valid() || !more) {
            at.StopHere();
        } else {
            at.WalkEnded();
        }
    }
    plan = widening.Plan();
    return true;
}

enum class StampRule { OneTime, PerRecord };

// Stores the result of a planned read in every record of the group that lies inside it: the value when `result` is
// success, the state and the stamp always. OneTime stamps all of them with one moment, taken after the read.
void WriteBackRead(const ReadPlan& plan, int result, StampRule rule);
