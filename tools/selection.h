// The ranges that a command is about: registers of the project by name or by pattern, and expressions.
#pragma once

#include <string>
#include <vector>

#include "client/description/meaning.h"
#include "tools/target.h"

struct SelectOptions {
    std::vector<std::string> what;  // names, patterns, expressions
    bool all = false;               // every register of the port in the project
};

struct Selected {
    std::string name;  // in the project, else the expression as given
    voq::Register reg;
    voq::ValueCoding coding;
    voq::Meaning meaning;
};

// In the order given; registers that only patterns or `all` name come once, in the project's order, and not when they
// were there before. Never empty. Throws UsageError.
std::vector<Selected> Select(const Target& target, const SelectOptions& options);

// A range that is there: the project's register of it, or the expression.
Selected SelectedOf(const Target& target, const RegKey& key);

// True when one range is meant, which needs no name beside its value.
bool NamesOne(const SelectOptions& options);
