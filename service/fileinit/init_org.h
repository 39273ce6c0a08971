// Registers the project file's ranges of this port into a fresh org list. Main thread, start-up.
#pragma once

// Returns 0 on success or on a gateway box, -1 when the file cannot be opened or used or a registration failed.
int InitOrgFromFile(const char* projectPath);
