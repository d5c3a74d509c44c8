// A message box that closes itself after a time-out.
#pragma once

#include <windows.h>

// MessageBoxW that closes after dwTimeout ms; returns the box's result, 0 when it timed out. The
// quit message that ends a timed-out box is taken from the queue again, so the caller's own loop
// goes on. One at a time (the owner and the time-out flag are process-wide), on a thread with a
// message loop.
int TimedMessageBox(HWND hOwner, const wchar_t* szText, const wchar_t* szCaption, UINT uType,
                    DWORD dwTimeout);

// Text from string resource uTextId of hResources, caption as given.
int TimedMessageBox(HINSTANCE hResources, HWND hOwner, UINT uTextId, const wchar_t* szCaption, UINT uType,
                    DWORD dwTimeout);

// Text and caption from string resources of hResources.
int TimedMessageBox(HINSTANCE hResources, HWND hOwner, UINT uTextId, UINT uCaptionId, UINT uType,
                    DWORD dwTimeout);

// The thread timer's callback: marks the box as timed out, enables its owner again and posts the
// quit message that ends the box's own loop.
void CALLBACK MessageBoxTimer(HWND hWnd, UINT uMsg, UINT_PTR idEvent, DWORD dwTime);
