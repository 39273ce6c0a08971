// Whole files, forced to the disk. Both throw voq::Error.
#pragma once

#include <string>

#include "client/bytes.h"

// Whoever reads the file meets the old content or the new, never a part.
void ReplaceFile(const std::string& path, const voq::Bytes& bytes);

// Makes a file that is not there yet.
void CreateFile(const std::string& path, const voq::Bytes& bytes);
