// The connect, disconnect and viewer-list notice: which one is open and of which kind. The dialog
// itself is NotifyDialog.cpp.
#pragma once

#include <windows.h>

#include <atomic>

// Why the notice opens.
constexpr int KV_NOTIFY_CONNECT = 1;
constexpr int KV_NOTIFY_DISCONNECT = 2;
constexpr int KV_NOTIFY_ALL = 3;

class CNoticeState
{
public:
    // The kind is chosen on the connection thread, read when the notice opens.
    void SetKind(int nKind) { m_nKind = nKind; }
    int Kind() const { return m_nKind; }
    HWND Window() const { return m_hDlg; }

    // Opens a notice of the current kind owned by hOwner; lParam goes to the dialog.
    void Open(HWND hOwner, LPARAM lParam);
    // Closes the open notice, if any.
    void Close();
    // The dialog is being destroyed.
    void Gone(HWND hDlg)
    {
        if (m_hDlg == hDlg)
            m_hDlg = nullptr;
    }

private:
    HWND m_hDlg = nullptr;
    std::atomic<int> m_nKind{KV_NOTIFY_CONNECT};
};
