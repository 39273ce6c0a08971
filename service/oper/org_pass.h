// The org-list pass: one packed read of records that have never been read.
// Main thread. Plans under the register database lock, reads without it.
#pragma once

#include <cstdint>

extern std::uint32_t CurrentNode;  // org offset where the next pass starts; 0: go back to the head first
extern std::uint16_t LoopReStart;  // 1 once a widened read has reached the end of the chain: no pass until a restart

void OperOrgList();
void OperOrgList_NoPack();
