// Outgoing connections asked from the tray menu: connecting to a client and joining an attended
// session, the wait dialog while the service connects, and whether one is under way.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

class IKvTrayLink;

class CReverseConnect
{
public:
    explicit CReverseConnect(IKvTrayLink& link) : m_link(link) {}
    CReverseConnect(const CReverseConnect&) = delete;
    CReverseConnect& operator=(const CReverseConnect&) = delete;

    // The menu's commands; each asks the service once its dialog is confirmed.
    void ConnectToClient(HWND hOwner, std::uint32_t uConnectOption, bool bAllowed);
    void JoinSession(HWND hOwner, std::uint32_t uConnectOption);
    // WM_KV_JOIN_SESSION_WAIT: wParam 0 show the wait dialog, 1 hide it, 2 cancel the attempt.
    void OnWait(HWND hOwner, WPARAM wParam);
    // The service answered (connection thread).
    void Answered() { m_bActive = false; }
    bool Active() const { return m_bActive; }

private:
    IKvTrayLink& m_link;
    std::atomic<bool> m_bActive{false};
    HWND m_hWaitDlg = nullptr;
};
