// The items of torture_database and what they share: a register database that is cut short or damaged, started again,
// and judged by what had been registered.
#pragma once

#include <set>

#include "support/database_files.h"

using Registered = std::map<std::string, std::pair<std::uint32_t, std::uint32_t>>;  // record and region by key
Registered RegisteredIn(const std::string& org);

// Something the service does to its files, and what a start finds wherever it was cut short.
struct Operation {
    std::string name;
    Files before;
    std::function<void()> run;
    Registered promised;    // what must be registered
    Files download = {};    // the set that start-up takes over
    bool damaged = false;   // the files may be refused
    Registered known = {};  // what may be registered, set by its run
};

// The one database of this process, in a folder on the memory file system.
struct Database {
    Database();
    [[nodiscard]] Files Load() const { return LoadFiles(scratch.Folder()); }
    [[nodiscard]] std::string Path(const std::string& name) const { return scratch.Folder() + name; }
    // Files in their place, and no subscription.
    void Set(const Files& files, const Files& download = {}) const;
    // Runs the operation to its end and notes what is registered then.
    void Run(Operation& operation) const;

    // The start-up of the service on the files as they lie there; what it printed.
    std::string Start();
    // Starts on the files as they lie there and complains of what is wrong with the outcome.
    void StartAndJudge(const Operation& operation);
    // What a start must leave of any files; and what must work then.
    [[nodiscard]] static std::string LooksWrong(const std::string& said, const Files& broken, const Files& after);
    [[nodiscard]] std::string FailsToWork(const Registered& promised) const;

    std::size_t judged = 0, mended = 0, refused = 0;
    std::size_t slowest = 0;                // start, in milliseconds of processor time
    std::set<Registered::value_type> torn;  // ranges that nobody registered
    Scratch scratch;
};

RegKey Range(unsigned group, std::uint32_t addr, unsigned width = 2);
// A database of so many ranges in four groups, and every operation on one.
Files Filled(const Database& database, std::size_t records);
std::vector<Operation> Operations(Database& database, std::size_t records);

extern std::string Where;  // the place of the work, for complaints, crashes and hangs
extern int Terminal;       // for what is said here: the service's own lines go elsewhere
// Counts what is wrong at that place, and prints the first few with what the service said; nothing for an empty text.
void Complain(const std::string& wrong, const std::string& said);
extern std::size_t Complaints;
// A row of the table. A figure that misses its goal makes the item fail.
void Report(const char* name, std::size_t figure, const std::string& goal, bool reached);

void PowerCut(Database& database, bool thorough);
void Damage(Database& database, bool thorough);
