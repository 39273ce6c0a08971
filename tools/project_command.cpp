// "voqctl project build" and "voqctl project show". Main thread.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "client/locked_file.h"
#include "client/project.h"
#include "tools/commands.h"

namespace
{

void WriteWhole(int fd, const std::string& path, const voq::Bytes& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno != EINTR) throw voq::SystemError(path, errno);
        if (n > 0) done += static_cast<std::size_t>(n);
    }
    // A new file's usual permissions, which the temporary file was not given.
    const mode_t mask = umask(0);
    umask(mask);
    if (fchmod(fd, 0666 & ~mask) != 0 || fsync(fd) != 0) throw voq::SystemError(path, errno);
}

// Whoever reads the file meets the old content or the new, never a part.
void ReplaceFile(const std::string& path, const voq::Bytes& bytes)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) throw voq::SystemError(temporary, errno);
    try {
        WriteWhole(fd, temporary, bytes);
        if (rename(temporary.c_str(), path.c_str()) != 0) throw voq::SystemError(path, errno);
    } catch (...) {
        close(fd);
        unlink(temporary.c_str());
        throw;
    }
    close(fd);
}

}  // namespace

int ProjectBuild(const std::string& toml, const std::string& output)
{
    const ProjectText text = LoadProjectToml(toml);
    const voq::Bytes bytes = voq::BuildProject(text.project);
    ReplaceFile(output, bytes);
    std::printf("%s: %zu bytes, %zu port(s), %zu register(s)\n", output.c_str(), bytes.size(),
                text.project.ports.size(), text.project.registers.size());
    return ExitOk;
}

int ProjectShow(const std::string& file)
{
    const auto bytes = voq::ReadLocked(file);
    if (!bytes) throw voq::Error(file + ": no such file");
    voq::Project project;
    try {
        project = voq::ParseProject(*bytes);
    } catch (const voq::Error& error) {
        throw voq::Error(file + ": " + error.what());
    }
    std::size_t skipped = 0;
    std::fputs(WriteProjectToml(project, skipped).c_str(), stdout);
    if (skipped != 0) std::fprintf(stderr, "voqctl: %zu register(s) cannot be built and are comments\n", skipped);
    return ExitOk;
}
