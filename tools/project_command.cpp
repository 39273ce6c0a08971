// "voqctl project build" and "voqctl project show". Main thread.
#include <cstdio>

#include "client/locked_file.h"
#include "client/project.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/project_toml.h"
#include "tools/write_file.h"

int ProjectBuild(const std::string& toml, const std::string& output)
{
    const voq::Description description = voq::LoadDescription(toml);
    const voq::Bytes bytes = voq::BuildProject(description.Built());
    ReplaceFile(output, bytes);
    std::printf("%s: %zu bytes, %zu port(s), %zu register(s)\n", Printable(output).c_str(), bytes.size(),
                description.ports.size(), description.registers.size());
    return ExitOk;
}

voq::Project LoadProjectFile(const std::string& file)
{
    const auto bytes = voq::ReadLocked(file);
    if (!bytes) throw voq::Error(file + ": no such file");
    try {
        return voq::ParseProject(*bytes);
    } catch (const voq::Error& error) {
        throw voq::Error(file + ": " + error.what());
    }
}

int ProjectShow(const std::string& file)
{
    const voq::Project project = LoadProjectFile(file);
    std::size_t skipped = 0;
    std::fputs(WriteProjectToml(project, skipped).c_str(), stdout);
    if (skipped != 0) Complain(std::to_string(skipped) + " register(s) cannot be built and are comments");
    return ExitOk;
}
