// Log-on and log-off through the org list, on the service threads; registration of project ranges, on the main thread.
// The register database lock is held over the whole find-add-index, and released before the fast list is changed.
#include "list/log_on_off.h"

#include <cstdio>

#include "database/index.h"

namespace
{
// Creates the record of a new group and its index entry. Returns true when both are there.
bool AddGroup(const RegKey& key, std::uint32_t first, OrgMode mode) VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t offset = AddItem2OrgList(key, first, mode);
    if (offset == OrgNone) return false;
    if (AddIndexItem(&key, offset)) return true;
    // A group without an entry would be created a second time.
    DropLastOrgItem(offset);
    return false;
}
}  // namespace

int LogOnOff2OrgList(const RegRequest* request, OrgMode mode, std::uint16_t fileno)
{
    const RegKey& key = request->key;
    {
        const MutexLock lock(DatabaseLock);
        std::uint32_t first = 0;
        if (FindIndex(&key, &first) != 0) return -1;
        if (first != 0 && first != OrgNone) {
            AddItem2OrgList(key, first, mode);
        } else if (AddGroup(key, first, mode)) {
            FindIndexAndRefresh(&key);
        }
    }
    if (mode == OrgMode::LogOn) {
        AddFastIndex(key, fileno, 0);
    } else {
        DelFastIndex(fileno);
    }
    return 0;
}

int CheckOrgList(const RegKey* key)
{
    const MutexLock lock(DatabaseLock);
    std::uint32_t first = 0;
    const int found = FindIndex(key, &first);
    if (found != 0) {
        std::printf("mek: Checkorglist:ret=%d", found);
        return -1;
    }
    if (first == 0) {
        // The entry goes before the record here, and goes again when there is none.
        if (AddIndexItem(key, OrgFirstRecord) && AddItem2OrgList(*key, 0, OrgMode::Register) == OrgNone) {
            DropLastIndexItem();
        }
    } else if (first == OrgNone) {
        AddGroup(*key, first, OrgMode::Register);
    } else {
        AddItem2OrgList(*key, first, OrgMode::Register);
    }
    return 0;
}
