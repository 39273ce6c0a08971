// Reads and writes the file.
#include "client/bridge_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include "client/error.h"

namespace voq
{

namespace
{

constexpr std::size_t MaxLines = 64, MaxLine = 512;

}  // namespace

void WriteBridgeState(const std::string& file, const std::vector<std::pair<std::string, std::string>>& lines)
{
    std::string text;
    for (const auto& [name, value] : lines) {
        text += name + " ";
        for (const char c : value) text += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
        text += '\n';
    }
    const std::string aside = file + ".new";
    unlink(aside.c_str());
    const int fd = open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0664);
    if (fd < 0) throw SystemError(aside, errno);
    const ssize_t done = write(fd, text.data(), text.size());
    const int number = errno;
    close(fd);
    if (done != static_cast<ssize_t>(text.size())) throw SystemError(aside, done < 0 ? number : ENOSPC);
    if (rename(aside.c_str(), file.c_str()) != 0) throw SystemError(file, errno);
}

BridgeState ReadBridgeState(const std::string& file)
{
    BridgeState state;
    std::ifstream stream(file);
    std::string line;
    for (std::size_t count = 0; count < MaxLines && std::getline(stream, line); ++count) {
        const std::size_t space = line.find(' ');
        if (space != std::string::npos && line.size() <= MaxLine) state[line.substr(0, space)] = line.substr(space + 1);
    }
    return state;
}

}  // namespace voq
