// The process ends at every call that changes a file, and again at every such call of the start that follows.
#include <sys/wait.h>
#include <unistd.h>

#include "torture.h"

namespace
{
constexpr int Cut = 99;

// Runs the action in a process of its own that ends at its call number `last`. True when it got that far.
bool DieAt(int last, const std::function<void()>& action)
{
    const pid_t child = fork();
    if (child == 0) {
        int calls = 0;
        MostWrittenAtOnce = 4096;
        Tap = [&](const FileChange& change) {
            if (change.kind != FileChange::Sync && ++calls == last) _exit(Cut);
            return AllOf(change);
        };
        action();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0 && status != W_EXITCODE(Cut, 0)) Complain("crashed");
    return status == W_EXITCODE(Cut, 0);
}

void DieEverywhere(Database& database, Operation operation, int step)
{
    bool touched = false;  // some only sync
    Tap = [&](const FileChange& change) {
        touched = true;
        return AllOf(change);
    };
    At("%s", operation.name.c_str());
    database.Run(operation);
    Tap = nullptr;
    Complain(touched ? "" : "changed nothing");
    bool cut = true;
    for (int first = 1; cut; ++first) {
        At("%s, ended at call %d", operation.name.c_str(), first);
        database.Set(operation.before, operation.download);
        cut = DieAt(first, operation.run);
        const Files broken = database.Load();
        Complain(database.StartAndJudge(operation));
        for (int second = 1; cut; second += step) {
            At("%s, ended at call %d, the start after it at %d", operation.name.c_str(), first, second);
            database.Set(broken, operation.download);
            if (!DieAt(second, [&] { database.Start(); })) break;
            Complain(database.StartAndJudge(operation));
        }
    }
}
}  // namespace

void Death(Database& database, bool thorough)
{
    for (const Operation& operation : Operations(database, 8)) DieEverywhere(database, operation, thorough ? 1 : 3);
    const std::size_t least = thorough ? 7000 : 2500;
    Report("process death: ends judged", database.judged, ">= " + std::to_string(least), database.judged >= least);
    ReportComplaints("process death: faults");
    Report("process death: ranges nobody registered", database.torn.size(), "0", database.torn.empty());
}
