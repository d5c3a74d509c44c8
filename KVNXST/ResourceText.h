// Texts and pictures of the resource library, from the handle it was loaded with. The library is
// loaded as an image resource, so GetModuleHandleW cannot find it by name: every load goes
// through here.
#pragma once

#include <windows.h>

#include <string>

// The resource library as loaded at start (whichever language folder it came from), else the
// agent's own module.
HINSTANCE KvResourceModule();

// The whole string uId of the resource library, however long; empty, with a warning in the log,
// when the library lacks it.
std::wstring KvLoadText(UINT uId);
