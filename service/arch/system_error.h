// The reason of a failed call of the system. Any thread; never allocates.
#pragma once

// Says on standard error why the last call of the system failed, as perror(), which allocates memory in newer
// libraries.
void PrintSystemError(const char* what);
