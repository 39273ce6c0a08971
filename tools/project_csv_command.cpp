// "voqctl project import" and "voqctl project export". Main thread.
#include <algorithm>
#include <cstdio>

#include "client/bytes.h"
#include "client/description/limits.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/progress.h"
#include "tools/project_csv.h"
#include "tools/write_file.h"

namespace
{

CsvAddresses AddressesOf(const std::string& name)
{
    if (name == "manual") return CsvAddresses::Manual;
    return name == "hex" ? CsvAddresses::Hex : CsvAddresses::Plain;
}

void Write(const std::string& output, const std::string& text)
{
    if (output.empty()) {
        std::fwrite(text.data(), 1, text.size(), stdout);
    } else {
        ReplaceFile(output, voq::Bytes(text.begin(), text.end()));
    }
}

CsvToml Converted(const CsvTable& table, CsvAddresses addresses, voq::Remarks& remarks)
{
    Progress progress("import: rows");
    return TomlOfCsv(table, addresses, remarks, progress.Teller());
}

// Ports that stand in for those of a description that is not given.
std::string AnyPorts(const CsvToml& toml)
{
    std::string text;
    for (const std::string& number : toml.ports) text += "[[port]]\nlink = \"can\"\nnumber = " + number + "\n";
    return text.empty() ? "[[port]]\nlink = \"can\"\nnumber = 1\n" : text;
}

// The description that the registers make behind their ports; what is wrong with it, by line of the table.
void CheckResult(const ImportOptions& options, const std::string& ports, const CsvToml& toml, voq::Remarks& remarks)
{
    voq::Remarks all(options.ports);
    Progress progress("import: registers");
    voq::ReadDescription(ports + toml.text, DriverDirsOf(options.drivers), all,
                         [&](std::size_t done) { progress.At(done); });
    const auto before = static_cast<std::size_t>(std::count(ports.begin(), ports.end(), '\n'));
    for (const voq::Remark& each : all.InOrder()) {
        if (each.line <= before) throw voq::Error(all.Text(each));
        if (toml.lines.empty()) continue;
        const std::size_t at = std::min(each.line - before, toml.lines.size()) - 1;
        remarks.Error(toml.lines[at], each.text);
    }
}

}  // namespace

int ProjectImport(const ImportOptions& options)
{
    voq::Remarks remarks(options.csv);
    const std::string text = voq::DescriptionText(options.csv);
    if (text.size() > voq::MaxDescriptionBytes) throw voq::Error(options.csv + ": longer than 8 MiB");
    const CsvTable table = ParseCsv(text, options.csv);
    const CsvToml toml = Converted(table, AddressesOf(options.addresses), remarks);
    std::string ports = options.ports.empty() ? "" : voq::DescriptionText(options.ports);
    if (!ports.empty() && ports.back() != '\n') ports += '\n';
    CheckResult(options, ports.empty() ? AnyPorts(toml) : ports, toml, remarks);
    for (const std::string& column : toml.unknown) Complain(options.csv + ": column \"" + column + "\" is not used");
    for (const voq::Remark& each : remarks.InOrder()) Complain(remarks.Text(each));
    if (remarks.Errors() != 0) return ExitNegative;
    Write(options.output, ports + toml.text);
    return ExitOk;
}

int ProjectExport(const ProjectOptions& options, const std::string& output)
{
    Write(output, CsvOfDescription(voq::LoadDescription(options.description, DriverDirsOf(options.drivers))));
    return ExitOk;
}
