// The project file as its two readers see it: little-endian words at offsets that come from the file itself.
// Main thread, start-up. Nothing is read past the end; what lies outside is reported.
#pragma once

#include <cstdint>

#include "arch/work_file.h"

class ProjectFile
{
public:
    [[nodiscard]] bool Open(const char* path) { return file_.OpenGiven(path); }
    void Close() { file_.Close(); }
    [[nodiscard]] std::uint32_t Size() const { return file_.Size(); }

    // Reads a record; false with a message when it does not lie wholly in the file. `what` names it.
    template <typename Record>
    [[nodiscard]] bool Read(std::uint64_t offset, Record& record, const char* what)
    {
        return ReadBytes(offset, &record, sizeof record, what);
    }

private:
    [[nodiscard]] bool ReadBytes(std::uint64_t offset, void* bytes, std::uint32_t size, const char* what);

    WorkFile file_;
};
