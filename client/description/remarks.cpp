// Remarks of descriptions. Pure.
#include "client/description/remarks.h"

#include <algorithm>

#include "client/error.h"

namespace voq
{

void Remarks::Error(std::size_t line, const std::string& text)
{
    Add({line, true, text});
}

void Remarks::Warning(std::size_t line, const std::string& text)
{
    Add({line, false, text});
}

void Remarks::Add(const Remark& remark)
{
    // Registers that share a default come one after the other, a few remarks each.
    constexpr std::ptrdiff_t near = 16;
    const auto begin = remarks_.size() > near ? remarks_.end() - near : remarks_.begin();
    if (std::find(begin, remarks_.end(), remark) != remarks_.end()) return;
    remarks_.push_back(remark);
    if (remark.error) ++errors_;
}

std::vector<Remark> Remarks::InOrder() const
{
    std::vector<Remark> sorted = remarks_;
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.line < b.line; });
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    return sorted;
}

std::string Remarks::Text(const Remark& remark) const
{
    const std::string line = remark.line == 0 ? "" : ":" + std::to_string(remark.line);
    return file_ + line + ": " + (remark.error ? "" : "warning: ") + remark.text;
}

void Remarks::ThrowFirst() const
{
    for (const Remark& each : InOrder()) {
        if (each.error) throw voq::Error(Text(each));
    }
}

}  // namespace voq
