// Stopping and restarting the application-mode service, and starting the settings editor.
#pragma once

#include <windows.h>

// Posts WM_CLOSE to the service's window ("KVNXSV") until it is gone, at most 12 times, half a
// second apart. 1 when no such window is left.
int KillApplication();

// Starts "KVNXS.EXE -service" from the agent's folder through the shell. 1 on success.
int StartAsService();

// KillApplication, then StartAsService when the kill succeeded. 1 when both succeeded.
int RestartService();

// Lets the settings library edit the application-mode service's settings rather than the
// installed service's, when the library supports it.
void SetApplicationMode(HMODULE hSettingsLibrary);

// Runs the settings library's dialog in this process. With bService set and no write access to
// the machine settings, asks first whether to open them anyway. 1 when the dialog returned nonzero.
int DisplaySettingsDialog(HWND hOwner, int bService);

// 1 when the machine-wide settings can be written: creates HKLM "SOFTWARE\Kestrova Development",
// sets and deletes its value "Test".
int TestRegistryWriteAccess();

// Starts a second copy of the agent with "-Settings" (elevated, for the service's settings) or
// "-SettingsAsApplication". 1 when it was started.
int ExecuteSettingsDialog(HWND hOwner, int bService);

// The settings library and its entries.
inline constexpr wchar_t KV_SETTINGS_LIBRARY[] = L"KVNXSET.DLL";
using PFN_KVNX_SettingsDialog = int(WINAPI*)(HWND hOwner);
using PFN_KVNX_SetApplicationMode = void(WINAPI*)();
