// What a description and a register database do not share. Pure.
#pragma once

#include <string>
#include <vector>

#include "client/database.h"
#include "client/description/description.h"

struct ChangedRange {
    const voq::DescribedRegister* described;
    RegKey registered;  // the same range with other flags, conversion or second address word
};

struct ProjectDifference {
    std::vector<const voq::DescribedRegister*> added;  // each range once
    std::vector<RegKey> gone;                          // registered, but not described
    std::vector<ChangedRange> changed;
};

// Of the port of that number: ranges that the service registers from a project.
ProjectDifference CompareWithDatabase(const voq::Description& description, std::uint16_t port,
                                      const voq::OrgImage& org);

// "word_limit: 64, described 125" for each setting of two port records that differs.
std::vector<std::string> ComparePorts(const ComInfoRecord& running, const ComInfoRecord& described);
