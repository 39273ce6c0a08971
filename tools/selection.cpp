// Resolves names, patterns and expressions. Main thread; pure.
#include "tools/selection.h"

#include <fnmatch.h>

#include <set>

namespace
{

bool IsPattern(const std::string& text)
{
    return !voq::LooksLikeExpression(text) && text.find_first_of("*?[") != std::string::npos;
}

// An expression has no name: the given text, or the whole expression, stands in for it.
Selected Made(const Target& target, const voq::DescribedRegister& described, const std::string& text = "")
{
    const voq::Register& reg = described.reg;
    const std::string name = !text.empty() ? text : !described.name.empty() ? described.name : voq::Expression(reg);
    return {name, reg, voq::CodingOf(reg, ByteOrderOf(target, reg.key)), described.meaning};
}

// Adds the port's registers whose names match; false when there are none.
bool AddMatching(const Target& target, const std::string& pattern, std::vector<Selected>& selected)
{
    bool found = false;
    std::set<std::string> before;
    for (const Selected& other : selected) before.insert(other.name);
    for (const voq::DescribedRegister& reg : target.project->registers) {
        if (reg.reg.key.portno != target.port.number) continue;
        if (fnmatch(pattern.c_str(), reg.name.c_str(), 0) != 0) continue;
        found = true;
        Selected made = Made(target, reg);
        if (before.insert(made.name).second) selected.push_back(std::move(made));
    }
    return found;
}

}  // namespace

std::vector<Selected> Select(const Target& target, const SelectOptions& options)
{
    std::vector<Selected> selected;
    for (const std::string& text : options.what) {
        if (!IsPattern(text)) {
            selected.push_back(Made(target, ResolveRegister(target, text), text));
        } else if (!target.project) {
            throw UsageError("\"" + text + "\": there is no --project to look it up in");
        } else if (!AddMatching(target, text, selected)) {
            throw UsageError("\"" + text + "\": no register of this port in the project has such a name");
        }
    }
    if (options.all && !target.project) throw UsageError("--all takes the registers of a --project");
    if (options.all && !AddMatching(target, "*", selected)) throw UsageError("--all: the port has no registers");
    if (selected.empty()) throw UsageError("which register? Give names, patterns or expressions, or --all");
    return selected;
}

Selected SelectedOf(const Target& target, const RegKey& key)
{
    return Made(target, Describe(target, key));
}

bool NamesOne(const SelectOptions& options)
{
    return !options.all && options.what.size() == 1 && !IsPattern(options.what[0]);
}
