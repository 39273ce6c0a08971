// A list in a fixed table, threaded by slot numbers: the fast list and the real-time list are such lists. Slot 0 is
// never handed out, so that a previous link of 0 says that there is none. Any thread, under the list's lock; never
// allocates.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint16_t SlotEnd = 0xFFFF;  // as a next link: the last entry; as a slot: there is none

struct SlotListHead {
    std::uint16_t count;
    std::uint16_t hint;  // where the search for a free slot starts: the slot handed out last
    std::uint16_t head;  // meaningful while count is not 0
    std::uint16_t tail;
};

inline constexpr SlotListHead EmptySlotList = {0, 1, 0, 0};

// One operation's view of a list. Item: a record with `prev`, `next` and `inuse`.
template <typename Item, std::size_t Slots>
class SlotList
{
public:
    SlotList(Item (&items)[Slots], SlotListHead& head) : items_(items), head_(head) {}

    void Reset()
    {
        for (Item& item : items_) item = {};
        head_ = EmptySlotList;
    }

    // A free slot, also stored as the hint; SlotEnd when all are taken.
    [[nodiscard]] std::uint16_t FindFree()
    {
        std::uint16_t slot = head_.hint;
        for (std::size_t tries = 1; tries < Slots; ++tries) {
            if (items_[slot].inuse == 0) {
                head_.hint = slot;
                return slot;
            }
            slot = slot == Slots - 1 ? 1 : static_cast<std::uint16_t>(slot + 1);
        }
        return SlotEnd;
    }

    // Links a free slot in front of `before`, at the end for SlotEnd.
    void LinkBefore(std::uint16_t slot, std::uint16_t before)
    {
        const std::uint16_t prev = before == SlotEnd ? head_.tail : items_[before].prev;
        items_[slot].prev = prev;
        items_[slot].next = before;
        PointAt(prev, slot, before, slot);
        ++head_.count;
    }

    // Takes a slot out; it is free then. The head of a list that has become empty is 0, as at the start.
    void Unlink(std::uint16_t slot)
    {
        Item& item = items_[slot];
        PointAt(item.prev, item.next, item.next, item.prev);
        --head_.count;
        if (head_.count == 0) head_.head = 0;
        item.inuse = 0;
    }

private:
    // Between the neighbours `prev` (0: none) and `next` (SlotEnd: none), makes the way forward lead to `forward` and
    // the way back to `back`.
    void PointAt(std::uint16_t prev, std::uint16_t forward, std::uint16_t next, std::uint16_t back)
    {
        if (prev == 0) {
            head_.head = forward;
        } else {
            items_[prev].next = forward;
        }
        if (next == SlotEnd) {
            head_.tail = back;
        } else {
            items_[next].prev = back;
        }
    }

    Item (&items_)[Slots];
    SlotListHead& head_;
};
