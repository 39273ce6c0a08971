// Every byte of the org file and of the index takes every other value, and either file ends at every length.
#include "torture.h"

namespace
{
void Look(Database& database, const Files& whole, const std::string& name, const std::string& bytes)
{
    Files broken = whole;
    broken[name] = bytes;
    std::ofstream(database.Path(name), std::ios::binary) << bytes;
    const bool works = database.judged++ % 16 == 0;  // takes long
    const std::size_t refusals = database.refused;
    const std::string said = database.Start();
    const Files after = database.Load();
    std::string wrong;
    if (broken["org"].size() < 12 || broken["index"].size() < 16) {
        // A header may still come. An index that lost its entries starts the table over at the next log-on.
        if (after != broken) wrong = "changed without a header or an entry";
    } else {
        wrong = Database::LooksWrong(said, broken, after);
        const bool kept = database.refused == refusals ||
                          (after.at("org.bad") == broken["org"] && after.at("index.bad") == broken["index"]);
        if (!kept) wrong = "not kept";
        if (wrong.empty() && works) wrong = database.FailsToWork({});
    }
    Complain(wrong, said);
    if (works || after != broken) database.Set(whole);
}
}  // namespace

void Damage(Database& database, bool thorough)
{
    const Files whole = Filled(database, 64);
    const std::size_t step = thorough ? 1 : 85;
    std::size_t least = 0;
    for (const char* name : {"org", "index"}) {
        const std::string& sound = whole.at(name);
        for (std::size_t at = 0; at < sound.size(); ++at) {
            for (std::size_t change = 1 + at % step; change < 256; change += step) {
                std::string bytes = sound;
                bytes[at] = static_cast<char>(bytes[at] + static_cast<int>(change));
                Where = name + (", byte " + std::to_string(at)) + ", " + std::to_string(change) + " more";
                Look(database, whole, name, bytes);
            }
            Where = name + (", cut to bytes: " + std::to_string(at));
            Look(database, whole, name, sound.substr(0, at));
            std::ofstream(database.Path(name), std::ios::binary) << sound;
        }
        least += sound.size() * (255 / step + 1);
    }
    dprintf(Terminal, "damage: %zu starts mended, %zu refused\n", database.mended, database.refused);
    Report("damage: files judged", database.judged, std::to_string(least), database.judged == least);
    Report("damage: crashes, hangs, unsound files", Complaints, "0", Complaints == 0);
    Report("damage: slowest start in ms", database.slowest, "< 1000", database.slowest < 1000);
}
