// The service's working files in memory, in place of arch/work_file.cpp and arch/fs.cpp: a fuzz target runs without
// system calls. The process ends when a file is opened while it is open, or is still open at the end of an input.
#pragma once

#include <string>

// Forgets every file but an empty register database; every variable of the service is as at the start.
void ResetBox();
void StoreFile(const char* path, const std::string& bytes);

extern std::string FifoBytes;  // what the next read of a client FIFO finds
