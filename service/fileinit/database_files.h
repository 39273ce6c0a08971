// Makes the register database ready at start-up: takes over a downloaded set, or builds it locally. Main thread, before
// any other thread exists.
#pragma once

#include "fileinit/working_paths.h"

// Returns 0 when the files are ready, -1 when the local build failed. When a database that is there cannot be read or
// mended, nothing is built over it and nothing registered in it: a master ends with status 1, a slave gets -1.
int PrepareDatabase(const char* projectPath, const DownloadPaths& download);
