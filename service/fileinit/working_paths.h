// The working paths of the port, composed and printed in their fixed order. Main thread, start-up.
#pragma once

#include "state/paths.h"

// Where a prepared register database may lie.
struct DownloadPaths {
    char directory[PathBytes];
    char org[PathBytes];
    char index[PathBytes];
    char data[PathBytes];
};

// Writes the port's directory name, "/com_1/" for serial port number 1. False when the link type names none.
bool PortDirectory(char* name);

// Compose, store and print. Each ends the process with exit status 1 when a path does not fit.
void BuildDataPaths(const char* userDir, const char* portDirectory, DownloadPaths* download);
void BuildLocalPaths(const char* userDir);
void BuildPortPaths();
void BuildSlavePath();
