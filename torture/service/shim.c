/* Preloaded into the service by tests.
 * Trace: the file that VOQ_TRACE names gets a line for what the main thread sleeps, looks for and opens, for line
 * settings and for the misc device's requests; /dev/null stands in for that device. Faults: a site is a function of the
 * system and the return addresses, within the service, that led to it. The file that VOQ_SITES names gets a line for
 * each site that is reached, or a "!" when the site that VOQ_FAULT names fails, the first VOQ_TIMES times. Allocations:
 * once the file /w/armed is there, every one but those that opening a stream makes is said on standard error. A second
 * lasts a millisecond. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

enum { MOST_FRAMES = 32, MOST_SITES = 1024, SITE_BYTES = 256, MOST_LINES = 100000 };

static pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;
static char Seen[MOST_SITES][SITE_BYTES];
static int SeenCount;
static uintptr_t Base, End; /* of the service's code */
static const char* Fault;
static long Times;
static int Trace = -1, Report = -1, Misc = -2;
static volatile int Armed;
static __thread int Opening;

static int created(const char* path)
{
    return path ? open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666) : -1;
}

__attribute__((constructor)) static void start(void)
{
    void* frame;
    if (strcmp(program_invocation_short_name, "voq") != 0) return; /* a program that the service runs */
    Trace = created(getenv("VOQ_TRACE"));
    const int report = created(getenv("VOQ_SITES"));
    Fault = getenv("VOQ_FAULT");
    Times = Fault ? atol(getenv("VOQ_TIMES")) : 0;
    backtrace(&frame, 1); /* loads what it needs */

    /* The program's headers lie behind the file's, which is at the base. */
    const ElfW(Phdr)* part = (const void*)getauxval(AT_PHDR);
    Base = (uintptr_t)part - sizeof(ElfW(Ehdr));
    for (unsigned long left = getauxval(AT_PHNUM); left > 0; --left, ++part)
        if (part->p_flags & PF_X) End = Base + part->p_vaddr + part->p_memsz;
    Report = report;
}

static void put(int file, const char* text)
{
    if (write(file, text, strlen(text)) < 0) abort();
}

static void note(const char* format, ...)
{
    static int lines;
    va_list args;
    if (Trace < 0 || syscall(SYS_gettid) != getpid() || lines++ >= MOST_LINES) return;
    va_start(args, format);
    vdprintf(Trace, format, args);
    va_end(args);
}

/* True when the call is to fail; errno says how. */
__attribute__((noinline)) static int fails(const char* function, int error)
{
    void* frames[MOST_FRAMES];
    char site[SITE_BYTES];
    const int saved = errno;
    const int depth = Report < 0 ? 0 : backtrace(frames, MOST_FRAMES);
    int length = snprintf(site, sizeof site, "%s", function), hit = 0, i = 0;
    if (depth < 3 || (uintptr_t)frames[2] < Base || (uintptr_t)frames[2] >= End) return 0; /* another library's call */
    for (i = 2; i < depth && length < SITE_BYTES - 20; ++i)
        if ((uintptr_t)frames[i] >= Base && (uintptr_t)frames[i] < End)
            length += snprintf(site + length, sizeof site - (size_t)length, " %lx", (uintptr_t)frames[i] - Base);
    pthread_mutex_lock(&Lock);
    if (Fault != NULL) {
        hit = Times > 0 && strcmp(site, Fault) == 0 && Times-- > 0;
        if (hit) put(Report, "!\n");
    } else {
        for (i = 0; i < SeenCount && strcmp(Seen[i], site) != 0;) ++i;
        if (i == MOST_SITES) abort();
        if (i == SeenCount) put(Report, strcpy(Seen[SeenCount++], site)), put(Report, "\n");
    }
    pthread_mutex_unlock(&Lock);
    errno = hit ? error : saved;
    return hit;
}

/* Built like the service: some calls have another name with wide offsets and times. */
#define NEXT_AS(symbol, name) ((__typeof__(&name))dlsym(RTLD_NEXT, symbol))
#define NEXT(name) NEXT_AS(#name, name)
#define CALL_AS(symbol, result, name, error, failure, parameters, arguments) \
    __attribute__((noinline)) result name parameters                         \
    {                                                                        \
        if (fails(#name, error)) return failure;                             \
        return NEXT_AS(symbol, name) arguments;                              \
    }
#define CALL(result, name, ...) CALL_AS(#name, result, name, __VA_ARGS__)
#define CALL_WIDE(result, name, ...) CALL_AS(#name "64", result, name, __VA_ARGS__)
/* The argument behind those with a name. */
#define LAST(type, name, before)          \
    va_list last;                         \
    va_start(last, before);               \
    const type name = va_arg(last, type); \
    va_end(last)

CALL(int, fsync, EIO, -1, (int file), (file))
CALL_WIDE(int, ftruncate, EIO, -1, (int file, off_t size), (file, size))
CALL_WIDE(off_t, lseek, EIO, -1, (int file, off_t offset, int whence), (file, offset, whence))
CALL(int, mkdir, ENOSPC, -1, (const char* path, mode_t mode), (path, mode))
CALL(int, mkfifo, ENOSPC, -1, (const char* path, mode_t mode), (path, mode))
CALL(DIR*, opendir, EMFILE, NULL, (const char* path), (path))
CALL(struct dirent64*, readdir64, EIO, NULL, (DIR * entries), (entries))
CALL_WIDE(ssize_t, pread, EIO, -1, (int file, void* bytes, size_t size, off_t at), (file, bytes, size, at))
CALL(ssize_t, read, EIO, -1, (int file, void* bytes, size_t size), (file, bytes, size))
CALL(int, remove, EACCES, -1, (const char* path), (path))
CALL(int, rename, EACCES, -1, (const char* from, const char* to), (from, to))
CALL(int, unlinkat, EACCES, -1, (int directory, const char* path, int flags), (directory, path, flags))
CALL(int, system, ENOMEM, -1, (const char* command), (command))
CALL(void*, dlopen, EMFILE, NULL, (const char* path, int mode), (path, mode))
CALL(int, pthread_create, EAGAIN, EAGAIN,
     (pthread_t * thread, const pthread_attr_t* how, void* (*body)(void*), void* argument),
     (thread, how, body, argument))

int access(const char* path, int mode)
{
    note("access %s\n", path);
    return fails("access", EIO) ? -1 : NEXT(access)(path, mode);
}

CALL_WIDE(FILE*, fopen, EMFILE, NULL, (const char* path, const char* mode), (path, mode))

FILE* fdopen(int file, const char* mode)
{
    if (fails("fdopen", ENOMEM)) return NULL;
    Opening = 1;
    FILE* stream = NEXT(fdopen)(file, mode);
    Opening = 0;
    return stream;
}

/* The disk is full in the middle of it. */
ssize_t pwrite(int file, const void* bytes, size_t size, off_t at)
{
    const int failing = fails("pwrite", ENOSPC);
    const ssize_t done = NEXT_AS("pwrite64", pwrite)(file, bytes, failing ? size / 2 : size, at);
    return failing ? errno = ENOSPC, -1 : done;
}

int fclose(FILE* stream)
{
    const int failing = fails("fclose", EIO), result = NEXT(fclose)(stream);
    return failing ? errno = EIO, EOF : result;
}

int open(const char* path, int flags, ...)
{
    LAST(unsigned, mode, flags);
    const int device = strcmp(path, "/dev/qumisc") == 0;
    /* Working files are opened without following a link. */
    if (flags & O_NOFOLLOW) note("open %s %s\n", path, flags & O_CREAT ? "wb+" : flags & O_RDWR ? "r+" : "r");
    if (fails("open", EMFILE)) return -1;
    const int file = NEXT_AS("open64", open)(device ? "/dev/null" : path, flags, mode);
    if (device && file >= 0) note("misc open %d\n", flags & O_ACCMODE), Misc = file;
    return file;
}

int ioctl(int file, unsigned long request, ...)
{
    LAST(uintptr_t, argument, request);
    if (file != Misc) return NEXT_AS(sizeof(long) == 4 ? "__ioctl_time64" : "ioctl", ioctl)(file, request, argument);
    note("misc %lx %lx\n", request, (unsigned long)argument);
    return 0;
}

int close(int file)
{
    if (file == Misc) note("misc closed\n"), Misc = -2;
    return NEXT(close)(file);
}

int fcntl(int file, int command, ...)
{
    LAST(uintptr_t, argument, command);
    if (fails("fcntl", ENOLCK)) return -1;
    return NEXT_AS(sizeof(long) == 4 ? "__fcntl_time64" : "fcntl64", fcntl)(file, command, argument);
}

int tcsetattr(int file, int when, const struct termios* line)
{
    note("line %u %x\n", line->c_ospeed, line->c_cflag & (CSIZE | PARENB | PARODD | CSTOPB));
    return NEXT(tcsetattr)(file, when, line);
}

int usleep(useconds_t microseconds)
{
    note("usleep %u\n", microseconds);
    if (!Armed && NEXT(access)("/w/armed", F_OK) == 0) put(STDERR_FILENO, "*armed*\n"), Armed = 1;
    return NEXT(usleep)(microseconds);
}

/* Another thread may end it; with VOQ_ENDLESS nothing else does. */
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const struct timespec* end)
{
    const struct timespec never = {end->tv_sec + 86400, 0};
    note("wait\n");
    return NEXT_AS(sizeof(long) == 4 ? "__pthread_cond_clockwait64" : "pthread_cond_clockwait", pthread_cond_clockwait)(
        condition, mutex, clock, getenv("VOQ_ENDLESS") ? &never : end);
}

unsigned sleep(unsigned seconds)
{
    return NEXT(usleep)(1000 * seconds), 0;
}

#define ALLOCATES(name, parameters, arguments)                           \
    void* __libc_##name parameters;                                      \
    void* name parameters                                                \
    {                                                                    \
        if (Armed && !Opening) put(STDERR_FILENO, "*alloc " #name "\n"); \
        return __libc_##name arguments;                                  \
    }

ALLOCATES(malloc, (size_t size), (size))
ALLOCATES(calloc, (size_t count, size_t size), (count, size))
ALLOCATES(realloc, (void* old, size_t size), (old, size))
