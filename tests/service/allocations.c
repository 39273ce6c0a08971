/* Preloaded into the service by test_allocation.py: once the file /w/armed is there, every allocation but those that
 * opening a stream makes is said on standard error. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);

static volatile int armed;
static __thread int opening;

static void say(const char* text)
{
    const ssize_t length = (ssize_t)strlen(text);
    if (armed && !opening && write(STDERR_FILENO, text, length) != length) _exit(1);
}

void* malloc(size_t size)
{
    return say("*malloc\n"), __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    return say("*calloc\n"), __libc_calloc(count, size);
}

void* realloc(void* old, size_t size)
{
    return say("*realloc\n"), __libc_realloc(old, size);
}

FILE* fdopen(int file, const char* mode)
{
    FILE* (*next)(int, const char*) = (FILE * (*)(int, const char*)) dlsym(RTLD_NEXT, "fdopen");
    opening = 1;
    FILE* stream = next(file, mode);
    opening = 0;
    return stream;
}

int usleep(useconds_t microseconds)
{
    int (*next)(useconds_t) = (int (*)(useconds_t))dlsym(RTLD_NEXT, "usleep");
    if (!armed && access("/w/armed", F_OK) == 0) armed = write(STDERR_FILENO, "*armed*\n", 8) == 8;
    return next(microseconds);
}
