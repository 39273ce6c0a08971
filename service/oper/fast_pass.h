// The fast-list pass: one packed read of subscribed ranges that are due.
// Main thread. Plans under fast_rwlock (read) and the register database lock, reads without either.
#pragma once

void OperFastList();
void OperFastList_NoPack();
