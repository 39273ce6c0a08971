// One packed read: how it grows over neighbouring ranges, and how its result reaches the register database.
// Main thread. The passes over the fast list and the org list share both; they differ in what they walk, in which
// records they take for candidates, and in where their cursor goes.
#pragma once

#include <cstdint>

#include "database/org_file.h"
#include "state/com_state.h"
#include "voq/org_record.h"
#include "voq/reg_range.h"

// A read to make: the starting record's key with the width of the whole read, that record's offset, and the number of
// due records that it was made for.
struct ReadPlan {
    RegKey key;
    std::uint32_t orgOffset;
    std::uint32_t ranges;
};

// Limits of the unpacked passes: a read grows only over records of width 0 at its start.
inline constexpr PackLimits UnpackedLimits = {1, 1};

// Holds the value of any read; the passes run one after another on the main thread.
extern unsigned char ReadBuffer[];

// A read while it grows.
class Widening
{
public:
    // `most`: how many records it may take.
    Widening(const OrgNode& start, std::uint32_t orgOffset, PackLimits limits, std::uint32_t most);

    // False when the starting record alone fills the limit.
    [[nodiscard]] bool CanGrow() const { return plan_.key.width < limits_.length; }
    [[nodiscard]] bool SameGroupAs(const OrgNode& record) const { return SameGroup(record.key, plan_.key); }
    // Takes a due record of the group in; false when the record ends the widening.
    [[nodiscard]] bool Take(const OrgNode& record);
    [[nodiscard]] const ReadPlan& Plan() const { return plan_; }

private:
    ReadPlan plan_;
    PackLimits limits_;
    std::uint32_t most_;
    std::uint32_t taken_ = 0;
};

// Lets a read grow over the due records of its group, the starting one again first. The record that ends it is where
// the next pass starts, and the starting record never is: when it ends the widening by itself, the next pass starts
// behind it.
template <typename Cursor>
void Widen(Cursor& at, Widening& read)
{
    for (bool starting = true; at.Valid() && read.SameGroupAs(at.Node()); at.Next(), starting = false) {
        if (!at.Due()) {
            at.PassOver();
            continue;
        }
        if ((starting || !at.Barred()) && read.Take(at.Node())) {
            if (!starting) at.Joins();
            continue;
        }
        if (starting) at.Next();
        at.StopHere();
        return;
    }
    if (at.Valid()) {
        at.StopHere();
    } else {
        at.WalkEnded();
    }
}

// Plans one read from where the cursor stands. False when there is nothing to read. A cursor gives:
//     bool Valid()              a record is at hand (Node, Offset); false at the end of what it walks
//     const OrgNode& Node(), std::uint32_t Offset(), bool Due(), void Next()
//     std::uint32_t BeginRead() the read begins here; how many ranges it may take
//     void PassOver()           the read leaves this record out, which is not due, and may go on behind it
//     bool Barred()             the read must not grow into this record, which is due
//     void SearchEnded()        the walk ended without a due record
//     void StopHere()           the next pass starts at the cursor's place
//     void WalkEnded()          the widening ran into the end
//     void Joins()              the record at hand is part of the read
template <typename Cursor>
bool PlanRead(Cursor& at, bool packed, ReadPlan& plan)
{
    while (at.Valid() && !at.Due()) at.Next();
    if (!at.Valid()) {
        at.SearchEnded();
        return false;
    }
    at.Joins();
    Widening read(at.Node(), at.Offset(), packed ? PortPackLimits(at.Node().key) : UnpackedLimits, at.BeginRead());
    if (read.CanGrow()) {
        Widen(at, read);
    } else {
        at.Next();
        at.StopHere();
    }
    plan = read.Plan();
    return true;
}

enum class StampRule { OneTime, PerRecord };

// Stores the result of a planned read in every record of the group that lies inside it: the value when `result` is
// success, the state and the stamp always. OneTime stamps all of them with one moment, taken after the read.
void WriteBackRead(const ReadPlan& plan, int result, StampRule rule);

// Stores the refusal of a read of one range: that range alone failed, whatever else lies inside it.
void WriteBackRefused(const ReadPlan& plan);
