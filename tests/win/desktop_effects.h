// The session's visual effects as the system reports them, and the note an agent leaves while it
// has some of them switched off.
#pragma once

#include "DesktopOptions.h"

#include <windows.h>

namespace kvtest
{

inline const wchar_t kDesktopNoteKey[] = L"Software\\Kestrova Development\\Vexa Remote Control\\Session";

inline DWORD Get(const DesktopEffect& e)
{
    DWORD dw = 0;
    SystemParametersInfoW(e.uGet, 0, &dw, 0);
    return dw;
}

inline void Put(const DesktopEffect& e, UINT u)
{
    if (e.bValueInUiParam)
        SystemParametersInfoW(e.uSet, u, nullptr, SPIF_SENDCHANGE);
    else
        SystemParametersInfoW(e.uSet, 0, reinterpret_cast<PVOID>(static_cast<UINT_PTR>(u)), SPIF_SENDCHANGE);
}

inline bool NotePresent()
{
    DWORD cb = 0;
    return RegGetValueW(HKEY_CURRENT_USER, kDesktopNoteKey, L"DesktopOptionsChanged", RRF_RT_ANY, nullptr,
                        nullptr, &cb) == ERROR_SUCCESS;
}

} // namespace kvtest
