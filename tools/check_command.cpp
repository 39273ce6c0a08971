// "voqctl check": are the register database's files sound? Main thread; only reads.
#include <chrono>
#include <cstdio>
#include <thread>

#include "client/db_check.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/progress.h"

int Check(const PortOptions& options, bool quiet)
{
    const Target target = Resolve(options);
    std::vector<voq::Finding> findings;
    voq::Snapshot snapshot;
    // The service adds a record and its index entry one after the other. What is broken in one copy only was such a
    // moment; what stays broken is.
    for (int attempt = 0; attempt < 3; ++attempt) {
        Progress progress("check: index maps");
        if (attempt != 0) std::this_thread::sleep_for(std::chrono::milliseconds(150));
        snapshot = voq::TakeSnapshot(target.port, progress.Teller());
        findings = voq::CheckSnapshot(snapshot);
        if (!voq::HasViolation(findings)) break;
    }
    const std::string dir = Printable(target.port.Dir());
    const bool broken = voq::HasViolation(findings);
    for (const voq::Finding& finding : findings) {
        const bool violation = finding.severity == voq::Severity::Violation;
        if (quiet && !violation) continue;
        std::printf("%s %s%s offset %llu: %s\n", violation ? "broken" : "note  ", dir.c_str(), finding.file.c_str(),
                    static_cast<unsigned long long>(finding.offset), finding.text.c_str());
    }
    if (!quiet || broken) {
        std::printf("%s: %u record(s), %zu group(s), %llu data bytes: %s\n", dir.c_str(), snapshot.org.RecordsInFile(),
                    voq::ParseIndex(snapshot.index).size(), static_cast<unsigned long long>(snapshot.dataSize),
                    broken ? "broken" : "sound");
    }
    return broken ? ExitNegative : ExitOk;
}
