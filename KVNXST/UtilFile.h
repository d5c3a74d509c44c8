// Loading the agent's own libraries, starting programs through the shell, and the temporary files
// of the file transfer.
#pragma once

#include <windows.h>

#include <string>

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

// Creates the empty file szPath, which must not exist yet, with no sharing, in the caller's
// context. Throws kvUtil::kvException "Cannot get file handle." with the system error otherwise.
void KvCreateNewFile(const wchar_t* szPath);

// Deletes szPath through a handle the agent holds without sharing, so nobody can swap the file in
// between: the handle is marked for deletion and closed. A file that is a reparse point (a
// symbolic link or junction put in its place) is refused, so its target stays untouched. Throws
// kvUtil::kvException "Cannot get file handle.", "Cannot get file info.", "File is reparse point."
// or "Cannot set file info." with the system error.
void KvSecureDeleteFile(const wchar_t* szPath);

// A file on a network drive by its UNC path (\\server\share\...), so that the name still means
// the same file to a process that has no such drive letter; any other path comes back unchanged.
std::wstring KvUniversalPath(const std::wstring& path);
