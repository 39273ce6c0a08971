// The project file, on the main thread during start-up.
#include "fileinit/project_file.h"

#include <cstdio>

bool ProjectFile::ReadBytes(std::uint64_t offset, void* bytes, std::uint32_t size, const char* what)
{
    if (offset + size <= file_.Size() && file_.ReadAt(static_cast<std::uint32_t>(offset), bytes, size)) return true;
    std::printf("*VOQ*project file damaged: %s at offset %llu lies outside the file\r\n", what,
                static_cast<unsigned long long>(offset));
    return false;
}
