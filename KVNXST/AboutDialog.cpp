#include "AboutDialog.h"

// The dialog's template and behaviour come with their own change; until then the tray window
// finds no template and logs that the dialog cannot be shown.
INT_PTR CALLBACK AboutWndProc(HWND /*hDlg*/, UINT /*uMsg*/, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return FALSE;
}
