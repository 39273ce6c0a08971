// "voqctl project check", "voqctl project build" and "voqctl project show". Main thread.
#include <algorithm>
#include <cstdio>
#include <functional>

#include "client/locked_file.h"
#include "client/project.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/project_check.h"
#include "tools/project_toml.h"
#include "tools/write_file.h"

namespace
{

constexpr std::size_t MostRemarks = 200;  // printed; a generated description may have thousands

voq::Description Examine(const ProjectOptions& options, voq::Remarks& remarks)
{
    const std::string text = voq::DescriptionText(options.description);
    voq::Description description = voq::ReadDescription(text, DriverDirsOf(options.drivers), remarks);
    CheckDescription(description, options.dir, remarks);
    return description;
}

void ForRemarks(const voq::Remarks& remarks, const std::function<void(const std::string&)>& print)
{
    const auto all = remarks.InOrder();
    for (std::size_t i = 0; i < std::min(all.size(), MostRemarks); ++i) print(remarks.Text(all[i]));
    if (all.size() > MostRemarks) print("... and " + std::to_string(all.size() - MostRemarks) + " more");
}

// Whose ranges nobody could look at.
std::string Unchecked(const voq::Description& description)
{
    std::string text;
    for (const voq::DescribedPort& port : description.ports) {
        if (port.info != nullptr) continue;
        text += text.empty() ? "" : "; ";
        text += "port " + std::to_string(port.record.portNo) + ": ";
        text += port.driver.empty() ? "it names no driver" : port.unknown;
    }
    return text;
}

}  // namespace

int ProjectCheck(const ProjectOptions& options)
{
    voq::Remarks remarks(options.description);
    const voq::Description description = Examine(options, remarks);
    ForRemarks(remarks, [](const std::string& line) { std::printf("%s\n", Printable(line).c_str()); });
    const std::string unchecked = Unchecked(description);
    const std::string file = Printable(options.description);
    if (!unchecked.empty()) {
        std::printf("%s: ranges not checked by a driver: %s\n", file.c_str(), Printable(unchecked).c_str());
    }
    std::printf("%s: %zu port(s), %zu register(s): %zu error(s), %zu warning(s)\n", file.c_str(),
                description.ports.size(), description.registers.size(), remarks.Errors(),
                remarks.InOrder().size() - remarks.Errors());
    return remarks.Errors() == 0 ? ExitOk : ExitNegative;
}

voq::Description CheckedDescription(const ProjectOptions& options)
{
    voq::Remarks remarks(options.description);
    voq::Description description = Examine(options, remarks);
    ForRemarks(remarks, Complain);
    if (remarks.Errors() == 0) return description;
    throw voq::Error(options.description + ": " + std::to_string(remarks.Errors()) + " error(s), nothing done");
}

int ProjectBuild(const ProjectOptions& options, const std::string& output)
{
    const voq::Description description = CheckedDescription(options);
    const voq::Bytes bytes = voq::BuildProject(description.Built());
    ReplaceFile(output, bytes);
    std::printf("%s: %zu bytes, %zu port(s), %zu register(s)\n", Printable(output).c_str(), bytes.size(),
                description.ports.size(), description.registers.size());
    return ExitOk;
}

int ProjectNames(const std::string& toml)
{
    for (const voq::DescribedRegister& reg : voq::LoadDescription(toml).registers) {
        if (!reg.name.empty()) std::printf("%s\n", reg.name.c_str());
    }
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
