// Reasons of failures, on any thread.
#include "arch/system_error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

void PrintSystemError(const char* what)
{
    const char* reason = strerrordesc_np(errno);  // strerror() looks for a translation in memory of its own
    std::fprintf(stderr, "%s: %s\n", what, reason != nullptr ? reason : "?");
}
