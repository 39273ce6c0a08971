// torture_database ITEM short|long: cuts the power or damages the service's files at every place, and looks at what the
// next start makes of it. Ends with table rows "name | figure | goal | ok"; exit status 1 on a MISS.
#include "torture.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

std::string Where;
int Terminal;
std::size_t Complaints;

namespace
{
bool Missed;

void Crashed(int signal)
{
    dprintf(Terminal, "%s: %s\n", Where.c_str(), strsignal(signal));
    _exit(3);
}
}  // namespace

// A clock that makes every run the same.
extern "C" int WRAPPED_CLOCK(timeval* now, void*)
{
    static long seconds = 1700000000;
    *now = {++seconds, 0};
    return 0;
}

void Complain(const std::string& wrong, const std::string& said)
{
    if (wrong.empty() || ++Complaints > 20) return;
    dprintf(Terminal, "%s: %s\n%s\n", Where.c_str(), wrong.c_str(), said.c_str());
}

void Report(const char* name, std::size_t figure, const std::string& goal, bool reached)
{
    Missed |= !reached;
    dprintf(Terminal, "%s | %zu | %s | %s\n", name, figure, goal.c_str(), reached ? "ok" : "MISS");
}

int main(int count, char** arguments)
{
    const std::string item = count == 3 ? arguments[1] : "", length = count == 3 ? arguments[2] : "";
    const auto run = item == "powercut" ? PowerCut : item == "damage" ? Damage : nullptr;
    if (run == nullptr || (length != "short" && length != "long")) {
        std::fputs("usage: torture_database powercut|damage short|long\n", stderr);
        return 2;
    }
    Terminal = dup(STDOUT_FILENO);
    static_cast<void>(!std::freopen("/dev/null", "w", stderr));
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGPROF, SIGALRM}) ::signal(signal, Crashed);
    Database database;
    run(database, length == "long");
    return Missed ? 1 : 0;
}
