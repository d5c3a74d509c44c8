// The desktop's visual options switched off while viewers watch, and the session actions that the
// service asks for through the agent's command line.
#pragma once

#include <windows.h>

// Ends the session: ExitWindowsEx with EWX_FORCE when bForce is non-zero, else EWX_LOGOFF, reason 0.
// Returns ExitWindowsEx's result (non-zero when accepted).
int Logoff(int bForce);

// Locks the workstation; where the system cannot, starts the screen saver in its place. Always 1.
int LockWorkstation();

// The on/off effects, in the order they are switched off and restored.
struct DesktopEffect
{
    int nBit;
    UINT uGet;
    UINT uSet;
    bool bValueInUiParam;
};
inline constexpr DesktopEffect KV_EFFECTS[] = {
    {0x0010, SPI_GETFONTSMOOTHING, SPI_SETFONTSMOOTHING, true},
    {0x0020, SPI_GETDRAGFULLWINDOWS, SPI_SETDRAGFULLWINDOWS, true},
    {0x0040, SPI_GETDROPSHADOW, SPI_SETDROPSHADOW, false},
    {0x0080, SPI_GETMENUFADE, SPI_SETMENUFADE, false},
    {0x0100, SPI_GETMENUANIMATION, SPI_SETMENUANIMATION, false},
    {0x0200, SPI_GETGRADIENTCAPTIONS, SPI_SETGRADIENTCAPTIONS, false},
    {0x0400, SPI_GETCURSORSHADOW, SPI_SETCURSORSHADOW, false},
    {0x0800, SPI_GETCOMBOBOXANIMATION, SPI_SETCOMBOBOXANIMATION, false},
    {0x1000, SPI_GETSELECTIONFADE, SPI_SETSELECTIONFADE, false},
    {0x2000, SPI_GETTOOLTIPANIMATION, SPI_SETTOOLTIPANIMATION, false},
    {0x4000, SPI_GETTOOLTIPFADE, SPI_SETTOOLTIPFADE, false},
};

// The options the service asks to switch off while viewers watch, and what was switched off, so
// that exactly that is put back. Runs on the window's thread and the connection thread.
class CDesktopOptions
{
public:
    // hWnd: the window whose timers 1025 and 1026 wait for the shell.
    explicit CDesktopOptions(HWND hWnd = nullptr) : m_hWnd(hWnd) {}
    void SetWindow(HWND hWnd) { m_hWnd = hWnd; }

    // Switches off what nOptions names and is on; waits for the shell's taskbar when it is not up.
    void Set(int nOptions);
    // Applies the last request again (a new viewer came).
    void Reapply();
    // Puts back what was switched off and forgets the request.
    void Restore();
    // At start-up: puts back what an agent that died left switched off.
    void Recover();
    // Timers 1025 (the shell is up?) and 1026 (apply now).
    void OnTimer(UINT_PTR uTimer);

    int Changed() const { return m_nResets; }

private:
    HWND m_hWnd;
    int m_nResets = 1;   // 1 plus the bits switched off
    int m_nOptions = 1;  // the last request, 1 for none
    UINT_PTR m_uPending = 0; // timer 1025 runs while a request waits for the shell
};
