// Starts the service's start-up step on prepared files and judges the outcome.
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "client/project.h"
#include "client/register.h"
#include "database/check.h"
#include "database/index.h"
#include "fileinit/database_files.h"
#include "state/com_state.h"
#include "torture.h"

namespace
{
char* Printed;
std::size_t PrintedBytes;
std::string Project, Download;

// What the service prints meanwhile. A second of processor time, or a minute, is a hang.
std::string Said(const auto& action)
{
    const itimerval second{{}, {1, 0}}, off{};
    std::rewind(stdout);
    setitimer(ITIMER_PROF, &second, nullptr);
    alarm(60);
    action();
    alarm(0);
    setitimer(ITIMER_PROF, &off, nullptr);
    std::fflush(stdout);
    return {Printed, PrintedBytes};
}

bool Contains(const Registered& all, const Registered& some)
{
    return std::includes(all.begin(), all.end(), some.begin(), some.end());
}
}  // namespace

Registered RegisteredIn(const std::string& org)
{
    Registered all;
    for (const auto& [offset, node] : Records(org)) all[org.substr(offset, sizeof(RegKey))] = {offset, node.dataoffset};
    return all;
}

Database::Database()
{
    Download = Path("set/");
    Project = Path("p/project");
    for (const char* folder : {"set", "p"}) std::filesystem::create_directory(Path(folder));
    stdout = open_memstream(&Printed, &PrintedBytes);
    ComInfo.portNo = 1;
    FakeDriver::Use();
    const voq::Bytes bytes = voq::BuildProject({0, {{}}, {Range(1, 20), Range(1, 10), Range(2, 5), Range(1, 30)}});
    std::ofstream(Project, std::ios::binary) << std::string(bytes.begin(), bytes.end());
}

void Database::Set(const Files& files, const Files& download) const
{
    StoreFiles(scratch.Folder(), files);
    StoreFiles(Download, download);
    ResetFastList();
}

void Database::Run(Operation& operation) const
{
    Set(operation.before, operation.download);
    operation.run();
    operation.known.merge(RegisteredIn(Load().at("org")));
    operation.known.insert(operation.promised.begin(), operation.promised.end());
}

std::string Database::Start()
{
    DownloadPaths paths;
    std::strcpy(paths.directory, Download.c_str());
    std::strcpy(paths.org, (Download + "org").c_str());
    std::strcpy(paths.index, (Download + "index").c_str());
    std::strcpy(paths.data, (Download + "data").c_str());
    const std::clock_t begin = std::clock();
    const std::string said = Said([&] { PrepareDatabase(Project.c_str(), paths); });
    slowest = std::max(slowest, static_cast<std::size_t>((std::clock() - begin) * 1000 / CLOCKS_PER_SEC));
    mended += said.find("*VOQ*register database mended") != said.npos;
    refused += said.find("*VOQ*register database refused") != said.npos;
    return said;
}

// One line tells of every change of files that were there; a build and a copy have lines of their own.
std::string Database::LooksWrong(const std::string& said, const Files& broken, const Files& after)
{
    if (after.count("org") == 0 || after.at("org").size() < 12) return "no org file";
    const std::string wrong = Unsound(after);
    if (!wrong.empty()) return wrong;
    const std::size_t line = said.find("*VOQ*register database ");
    if (line != said.rfind("*VOQ*register database ")) return "more than one line";
    const bool built = said.find("*VOQ*RegAmount=") != said.npos || said.find("*VOQ*download") != said.npos;
    if (built || broken.count("data") == 0) return "";
    // Both are in the order of their names.
    const bool kept = std::includes(after.begin(), after.end(), broken.begin(), broken.end());
    return kept == (line == std::string::npos) ? "" : kept ? "a line for no change" : "changed without a line";
}

void Database::StartAndJudge(const Operation& operation)
{
    const Files broken = Load();
    const std::size_t refusals = refused;
    const std::string said = Start();
    const Files after = Load();
    ++judged;
    std::string wrong = LooksWrong(said, broken, after);
    if (refused > refusals && !operation.damaged) wrong = "refused";
    if (wrong.empty()) {
        const Registered now = RegisteredIn(after.at("org"));
        if (!Contains(now, operation.promised)) wrong = "a registration was lost";
        for (const auto& [bytes, place] : now) {
            const auto known = operation.known.find(bytes);
            if (known != operation.known.end() && known->second != place) wrong = "a range moved";
            if (known != operation.known.end() || !torn.insert({bytes, place}).second) continue;
            const RegKey key = Word<RegKey>(bytes, 0);
            const std::string text = voq::Expression({key, voq::TypeOfSize(key.layout & 15u)});
            dprintf(Terminal, "torn: %s, record at %u\n", text.c_str(), place.first);
        }
        DatabaseState again{};
        const std::string nothing = Said([&] { again = CheckDatabase(MapCare::Judge); });
        if (again != DatabaseState::Sound || !nothing.empty() || Load() != after) wrong = "not sound at the next look";
    }
    Complain(wrong.empty() ? FailsToWork(operation.promised) : wrong, said);
}

// A range in front of everything, one of a new group and a known one are registered, and nothing is lost by it.
std::string Database::FailsToWork(const Registered& promised) const
{
    const Registered before = RegisteredIn(Load().at("org"));
    std::vector<RegKey> keys = {Range(1, 1), Range(8, 1)};
    bool found = true, done = true;
    Said([&] {
        for (const auto& [bytes, place] : promised) {
            keys.resize(3, Word<RegKey>(bytes, 0));
            found &= GetOrgOffset(Word<RegKey>(bytes, 0)) == place.first;
        }
        for (const RegKey& key : keys) done &= Request(key, OrgMode::LogOn) == 0;
    });
    const Files after = Load();
    const Registered now = RegisteredIn(after.at("org"));
    if (!found || !done) return found ? "a log-on fails" : "not found";
    if (!Contains(now, before) || now.size() > before.size() + 2) return "further log-ons lose a registration";
    return Unsound(after);
}
