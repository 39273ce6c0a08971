/* Preloaded into the service by the cadence tests: notes what the main thread sleeps, looks for and opens, one line
 * each, in the file that VOQ_TRACE names; makes the watchdog's 10 seconds pass in 10 ms. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { MOST_LINES = 20000 };

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

FILE* fopen(const char* path, const char* mode)
{
    note("fopen %s %s\n", path, mode);
    return ((FILE * (*)(const char*, const char*)) next("fopen"))(path, mode);
}
