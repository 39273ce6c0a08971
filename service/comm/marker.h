// The two marker files whose existence tells other processes that the PLC link is failing. Main thread.
#pragma once

// Create an empty file: 0, or -1 after a message. Remove it: 0. Test for it.
int SetTimeout();
int ClrTimeout();
bool CheckIfTimeout();
int SetComError();
int ClrComError();
bool CheckIfComError();
