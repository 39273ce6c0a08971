// Request numbers. They name result files and subscriptions of the whole port, so a client claims those that it uses:
// in the port's claims file, where a claim ends with the client, however that ends.
#pragma once

#include <cstdint>
#include <unordered_set>

#include "client/error.h"
#include "client/port_dir.h"
#include "voq/claim.h"

namespace voq
{

struct FileNumberRange {
    std::uint16_t first = 50000;
    std::uint16_t last = 59999;
};

// Every number of the range is taken.
class NoNumber : public Error
{
public:
    using Error::Error;
};

// The numbers that one client holds. One thread. Opens the claims file with the first number, and then closes what
// clients that are gone have left open under theirs: their subscriptions, and answers that nobody fetched.
class FileNumbers
{
public:
    // Throws Error when the range is empty.
    explicit FileNumbers(PortDir port, FileNumberRange range = {});
    // Gives all numbers back; what Note said of them stays for whoever comes next.
    ~FileNumbers();
    FileNumbers(const FileNumbers&) = delete;
    FileNumbers& operator=(const FileNumbers&) = delete;

    // A number that no client holds and for which there is neither a result file nor a payload file; from a random
    // start on. Throws NoNumber, or Error.
    std::uint16_t Next();
    // Says what is open under a number that is held, before it is sent. Throws Error.
    void Note(std::uint16_t number, const RegRequest& request);
    // Nothing is open under it any more.
    void GiveBack(std::uint16_t number);

    // The descriptor that holds the numbers, -1 before the first.
    int Descriptor() const { return file_; }

private:
    void Open();
    void Sweep();
    bool Lock(std::uint16_t number, bool on) const;
    bool Close(std::uint16_t number, const RegRequest& left) const;
    bool InUse(std::uint16_t number) const;
    RegRequest Noted(std::uint16_t number) const;
    void Store(std::uint16_t number, const RegRequest& request) const;

    PortDir port_;
    FileNumberRange range_;
    std::uint32_t offset_;  // of the next candidate in the range
    int file_ = -1;
    std::unordered_set<std::uint16_t> held_;
};

}  // namespace voq
