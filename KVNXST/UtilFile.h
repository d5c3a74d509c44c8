// Loading the agent's own libraries and starting programs through the shell.
#pragma once

#include <windows.h>

// Loads szName from the agent's own folder and nowhere else, so a copy planted on the search path
// is never picked up. Null on failure; the loader's error stays the last error (0 on success).
HMODULE Vexa_LoadLibrary(const wchar_t* szName);

// 1 when szPath names an existing file, with its find data in *pData (zeroed first); 0 for a
// null or empty path, a null output, or no such file.
int GetFileInformation(const wchar_t* szPath, WIN32_FIND_DATAW* pData);

// ShellExecuteExW with the given verb ("open", "runas", ...), shown normally; its result.
BOOL KvShellExec(HWND hOwner, const wchar_t* szVerb, const wchar_t* szPath, const wchar_t* szParameters,
                 const wchar_t* szDirectory);

// The running agent's full path into szPath (cchPath units). 0 when it cannot be read or does not
// fit.
int GetAgentPath(wchar_t* szPath, DWORD cchPath);

// The agent's folder with its trailing backslash into szFolder (cchFolder units). 0 when the
// module path cannot be read or does not fit.
int GetAgentFolder(wchar_t* szFolder, DWORD cchFolder);

// Starts the agent again as " -Permission <nPort> <nAfType>", so the question has a process of its
// own. Nonzero when the child was started; otherwise the last error says why.
int ExecutePermission(int nPort, int nAfType);
