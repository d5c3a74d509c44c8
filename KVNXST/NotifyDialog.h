// The connect/disconnect notice beside the taskbar (dialog 102), modeless; its creation parameter
// and GWLP_USERDATA are the tray window object. The unit also holds what the agent's other
// dialogs share with it: the placement beside the taskbar, the monitor's work area, the late-bound
// sound, and the light-blue look (gradient, icon 7, text colour).
#pragma once

#include <windows.h>

#include <string>

INT_PTR CALLBACK NotifyWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

// Private message of the notice: play its sound now; lParam nonzero for the disconnect sound.
constexpr UINT WM_KV_NOTIFY_SOUND = WM_USER + 3;

// Moves hWnd (size kept) beside the taskbar, or into the work area's corner when the taskbar's
// position is unknown, and shows it topmost without activating it.
void SetNotifyDialogLocation(HWND hWnd);

// Work rectangle of the monitor that rcIn lies on; FALSE when there is none or the monitor
// functions are missing.
BOOL GetDisplayWorkArea(const RECT& rcIn, RECT& rcWork);

// PlaySoundW from "Winmm.DLL", loaded for this call; FALSE when the library or function is missing.
BOOL VexaPlaySound(const wchar_t* pszSound, HINSTANCE hmod, DWORD fdwSound);

// --- The dialogs' look.

// Resolves "GradientFill" from "msimg32.dll" (counted: every successful acquire is paired with a
// release). False when the screen should not get a gradient or the function is missing.
bool KvAcquireGradient();
void KvReleaseGradient();
// The vertical light-blue gradient over rc; does nothing without an acquired gradient.
void KvPaintGradient(HDC hdc, const RECT& rc);

// Text colour of the dialogs' own texts, dark enough on the light blue.
COLORREF KvDialogTextColour();
// The flat background colour where no gradient is drawn.
constexpr COLORREF KV_DIALOG_BACKGROUND = RGB(196, 219, 246);

// Icon 7 from the resource library at the system's icon size; null when it is missing.
HICON KvLoadDialogIcon();

// The font for texts a dialog draws itself: the dialog's own, which follows the screen's DPI (the
// stock ANSI_VAR_FONT is a fixed-size bitmap font, tiny at 144 DPI); the stock font without one.
HGDIOBJ KvDialogFont(HWND hDlg);

// Shows text (lines split at CR LF) as the items of the list box hList, scrolling sideways to its
// longest line. Text from the service goes to list boxes and static controls, never to an edit
// control (see ServiceText.h).
void KvShowLines(HWND hList, const std::wstring& text);

// Sets up a WM_CTLCOLOR* answer: transparent text in the dialogs' colour, dialog result 1.
void KvPrepareDialogText(HWND hDlg, HDC hdc);
