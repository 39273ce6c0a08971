// Marker files of a failing link, on the main thread. They are not locked: only their existence counts.
#include "comm/marker.h"

#include <cstdio>

#include "arch/fs.h"
#include "arch/regular_file.h"
#include "arch/system_error.h"
#include "state/paths.h"

namespace
{
int CreateMarker(const char* path, const char* failure)
{
    if (MakeEmptyFile(path)) return 0;
    std::puts(failure);
    PrintSystemError("fopen:");
    return -1;
}

int RemoveMarker(const char* path)
{
    RemoveFile(path);
    return 0;
}
}  // namespace

int SetTimeout()
{
    return CreateMarker(TimeoutName, "set timeout error");
}
int ClrTimeout()
{
    return RemoveMarker(TimeoutName);
}
bool CheckIfTimeout()
{
    return FileExists(TimeoutName);
}
int SetComError()
{
    return CreateMarker(ComErrorName, "set com error");
}
int ClrComError()
{
    return RemoveMarker(ComErrorName);
}
bool CheckIfComError()
{
    return FileExists(ComErrorName);
}
