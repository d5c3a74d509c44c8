// Stopping a running screen saver.
#pragma once

#include <windows.h>

// Asks every visible window on the "Screen-saver" desktop to close. Does nothing when no screen
// saver desktop exists.
void KillScreenSaver();

// The enumeration callback: posts WM_CLOSE to hWnd when it is visible; always continues.
BOOL CALLBACK KillScreenSaverFunc(HWND hWnd, LPARAM lParam);
