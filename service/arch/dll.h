// Shared libraries. Main thread.
#pragma once

// Opens path + ".so" with immediate binding; prints the system's error text. Returns the handle or null.
void* loadDll(const char* path);
// Address of a symbol or null; prints the system's error text.
void* getDllApi(void* handle, const char* symbol);
void rmvDll(void* handle);
