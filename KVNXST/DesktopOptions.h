// Session actions that the service asks for through the agent's command line.
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
