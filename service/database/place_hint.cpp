// Hints where the walk to a range's place may begin, under the register database lock.
#include "database/place_hint.h"

#include <algorithm>
#include <iterator>

#include "voq/reg_range.h"

namespace
{
constexpr std::uint32_t LastPlaces = 4096;  // groups and addresses beyond that share the places
constexpr std::uint32_t NearAddresses = 8;
std::uint32_t LastPlace[LastPlaces] VOQ_GUARDED_BY(DatabaseLock);

std::uint32_t& LastPlaceOf(const RegKey& key, std::uint32_t part) VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t mixed = ((key.regid * 31u + key.plcno) * 31 + key.layout) * 31 + SubaddrLow(key);
    return LastPlace[((2 * mixed + (GroupFlag(key) ? 1 : 0)) * 31 + part) % LastPlaces];
}

std::uint32_t& LastPlaceOfGroup(const RegKey& key) VOQ_REQUIRES(DatabaseLock)
{
    return LastPlaceOf(key, 0);
}

std::uint32_t& LastPlaceNear(const RegKey& key) VOQ_REQUIRES(DatabaseLock)
{
    return LastPlaceOf(key, 1 + key.addr / NearAddresses);
}

// True when the walk to the key's place may begin at `place`: at a record of the group, linked into the chain, that
// does not sort behind the key. `record`: the record there.
bool MayStart(OrgFile& file, const RegKey& key, std::uint32_t place, OrgNode& record)
{
    OrgNode ahead;
    const bool inGroup = file.Holds(place) && file.ReadNode(place, record) && SameGroup(record.key, key);
    const bool linked = inGroup && file.Holds(record.prev) && file.ReadNode(record.prev, ahead) && ahead.next == place;
    return linked && NodeCompare(record.key, key) != 2;
}
}  // namespace

std::uint32_t WalkStart(OrgFile& file, const RegKey& key, std::uint32_t first)
{
    const std::uint32_t near = LastPlaceNear(key);
    const std::uint32_t last = LastPlaceOfGroup(key);
    OrgNode atNear;
    OrgNode atLast;
    const bool fromNear = MayStart(file, key, near, atNear);
    if (last == near || !MayStart(file, key, last, atLast)) return fromNear ? near : first;
    return fromNear && NodeCompare(atLast.key, atNear.key) == 1 ? near : last;
}

void NotePlace(const RegKey& key, std::uint32_t offset)
{
    LastPlaceNear(key) = LastPlaceOfGroup(key) = offset;
}

void ForgetPlaces()
{
    std::fill(std::begin(LastPlace), std::end(LastPlace), 0u);
}
