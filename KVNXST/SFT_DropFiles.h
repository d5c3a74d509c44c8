// What the user gives a drop window, handed to the service.
//
// The files are listed in the transfer's temporary settings file (the record's szFileListPath), an
// INI file in UTF-16LE with a byte-order mark so that names in any script come through:
//
//   [Files]
//   Counter=3
//   File1=C:\Users\ann\report.pdf
//   File2=\\fileserver\projects\plan.docx
//   File3=...
//
// Counter is the number of files listed so far; a later drop goes on at File<Counter+1>. Entries
// are full paths in the order the user gave them, a file on a network drive by its UNC path.
// Folders and names that no longer exist are left out. Without a settings file, or when it cannot
// be written, the same list goes to the clipboard under the registered format "KVNXS_Files" as a
// DROPFILES block of wide names. Either way the drop window sets the record's event afterwards, once
// it has closed, so the service never asks for a new window while the old one is still there.
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr wchar_t KV_SFT_FILES_SECTION[] = L"Files";
constexpr wchar_t KV_SFT_CLIPBOARD_FORMAT[] = L"KVNXS_Files";

// The names in a DROPFILES block of cb bytes, read only within the block: a name without its
// terminator ends the list, and a block that cannot be one yields nothing.
std::vector<std::wstring> KvReadFileDrop(const std::uint8_t* pBlock, std::size_t cb);

// Lists the files for the service as above and returns how many were listed; with none (only
// folders, nothing left) nothing is written. hOwner owns the clipboard while it is written.
std::size_t KvSendDroppedFiles(const MSG_TRAYICON_SFT_DROP_CLIENT& drop,
                               const std::vector<std::wstring>& paths, HWND hOwner);

// Opens the service's named event and sets it; a failure is logged with its error.
void KvSetServiceEvent(const wchar_t* szName);
