#include "support/database_files.h"

#include "client/db_check.h"

Files LoadFiles(const std::string& folder)
{
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.is_regular_file()) files[entry.path().filename()] = FileBytes(entry.path());
    }
    return files;
}

void StoreFiles(const std::string& folder, const Files& files)
{
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.is_regular_file() && files.count(entry.path().filename()) == 0) std::filesystem::remove(entry.path());
    }
    for (const auto& [name, bytes] : files) std::ofstream(folder + name, std::ios::binary) << bytes;
}

std::string ChangesOf(const std::function<void()>& work)
{
    std::string changes;
    Tap = [&](const FileChange& change) {
        if (change.descriptor < 0) return AllOf(change);
        const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(change.descriptor));
        changes += std::filesystem::is_directory(path) ? "." : path.filename().string();
        changes += change.kind == FileChange::Sync
                       ? "! "
                       : "@" + std::to_string(change.offset) + "+" + std::to_string(change.size) + " ";
        return AllOf(change);
    };
    Output(work);
    Tap = nullptr;
    return changes;
}

std::vector<voq::OrgRecord> Records(const std::string& org)
{
    return voq::WalkChain({voq::Bytes(org.begin(), org.end())}).records;
}

std::string Unsound(const Files& files)
{
    voq::Snapshot snapshot;
    for (const auto& [name, text] : files) {
        const voq::Bytes bytes(text.begin(), text.end());
        if (name == "org") snapshot.org.bytes = bytes;
        if (name == "index") snapshot.index = bytes;
        if (name == "data") snapshot.dataSize = bytes.size();
        if (name.starts_with("im")) snapshot.maps[name] = bytes;
    }
    for (const voq::Finding& found : voq::CheckSnapshot(snapshot)) {
        if (found.severity == voq::Severity::Violation) return found.file + ": " + found.text;
    }
    return "";
}

RegKey Key(unsigned plcno, unsigned layout, std::uint32_t addr, unsigned width, std::uint32_t subaddr)
{
    RegKey key = WordKey(addr, static_cast<std::uint16_t>(width), static_cast<std::uint8_t>(layout));
    key.flag = 0;
    key.plcno = static_cast<std::uint8_t>(plcno);
    key.subaddr = subaddr;
    return key;
}

int Request(const RegKey& key, OrgMode mode)
{
    const RegRequest request{key, static_cast<std::uint8_t>(mode), 0, 7, 0};
    return mode == OrgMode::Register ? CheckOrgList(&key) : LogOnOff2OrgList(&request, mode, 7);
}

void LogOn(const RegKey& key)
{
    Output([&] { EXPECT_EQ(0, Request(key, OrgMode::LogOn)); });
}
