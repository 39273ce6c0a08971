/* Preloaded into the service by tests: notes what the main thread sleeps, looks for and opens, the line settings and
 * the misc device's requests, one line each, in the file that VOQ_TRACE names; makes the watchdog's 10 seconds pass in
 * 10 ms; with VOQ_CUT=n, ends the process in its n-th change of a file or folder, of a write when half of it is done.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

enum { MOST_LINES = 100000, CUT_STATUS = 9 };

static void note(const char* format, ...)
{
    static int file = -2;
    static int lines;
    char line[512];
    if (syscall(SYS_gettid) != getpid() || lines == MOST_LINES) return;
    if (file == -2) {
        const char* path = getenv("VOQ_TRACE");
        file = path ? open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666) : -1;
    }
    va_list args;
    va_start(args, format);
    const int size = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (file >= 0 && size > 0 && size < (int)sizeof line && write(file, line, size) == size) ++lines;
}

static void* next(const char* name)
{
    return dlsym(RTLD_NEXT, name);
}

int usleep(useconds_t microseconds)
{
    note("usleep %u\n", microseconds);
    return ((int (*)(useconds_t))next("usleep"))(microseconds);
}

unsigned sleep(unsigned seconds)
{
    if (seconds != 10) return ((unsigned (*)(unsigned))next("sleep"))(seconds);
    ((int (*)(useconds_t))next("usleep"))(10000);
    return 0;
}

int access(const char* path, int mode)
{
    note("access %s\n", path);
    return ((int (*)(const char*, int))next("access"))(path, mode);
}

/* True in the change that is to be the last: of the main thread, or of the threads that serve the clients. */
static int last_change(void)
{
    static long left;
    const char* cut = getenv(syscall(SYS_gettid) == getpid() ? "VOQ_CUT" : "VOQ_CUT_CLIENT");
    if (cut == NULL) return 0;
    if (left == 0) left = atol(cut);
    return --left == 0;
}

static void change(void)
{
    if (last_change()) _exit(CUT_STATUS);
}

ssize_t pwrite(int file, const void* data, size_t size, off_t offset)
{
    const int last = last_change();
    const ssize_t done =
        ((ssize_t(*)(int, const void*, size_t, off_t))next("pwrite"))(file, data, last ? size / 2 : size, offset);
    if (last) _exit(CUT_STATUS);
    return done;
}

#define CHANGE(name, parameters, arguments)               \
    int name parameters                                   \
    {                                                     \
        change();                                         \
        return ((int(*) parameters)next(#name))arguments; \
    }

CHANGE(ftruncate, (int file, off_t size), (file, size))
CHANGE(fsync, (int file), (file))
CHANGE(remove, (const char* path), (path))
CHANGE(rename, (const char* from, const char* to), (from, to))
CHANGE(unlinkat, (int folder, const char* name, int flags), (folder, name, flags))
CHANGE(mkdir, (const char* path, mode_t mode), (path, mode))
CHANGE(mkfifo, (const char* path, mode_t mode), (path, mode))

/* The box's misc device is stood in for by /dev/null. Working files are opened without following a link. */
static int misc = -1;

int open(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(args, mode_t) : 0;
    va_end(args);
    const int device = strcmp(path, "/dev/qumisc") == 0;
    if (flags & O_NOFOLLOW) note("open %s %s\n", path, flags & O_CREAT ? "wb+" : flags & O_RDWR ? "r+" : "r");
    if (flags & O_NOFOLLOW && flags & O_CREAT) change();
    const int file = ((int (*)(const char*, int, ...))next("open"))(device ? "/dev/null" : path, flags, mode);
    if (device) misc = file;
    if (device) note("misc open %d\n", flags & O_ACCMODE);
    return file;
}

int ioctl(int file, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (file == misc && file >= 0) note("misc %lx %lx\n", request, (unsigned long)argument);
    return file == misc ? 0 : ((int (*)(int, unsigned long, ...))next("ioctl"))(file, request, argument);
}

int close(int file)
{
    if (file == misc && file >= 0) note("misc closed\n");
    if (file == misc) misc = -1;
    return ((int (*)(int))next("close"))(file);
}

int tcsetattr(int file, int when, const struct termios* line)
{
    note("line %u %x\n", line->c_ospeed, line->c_cflag & (CSIZE | PARENB | PARODD | CSTOPB));
    return ((int (*)(int, int, const struct termios*))next("tcsetattr"))(file, when, line);
}
