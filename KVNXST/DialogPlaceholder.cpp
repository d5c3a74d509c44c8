#include "DialogPlaceholder.h"

INT_PTR KvDialogNotBuiltYet(log4cxx::LoggerPtr& logger, const wchar_t* szDialog, bool bModal, HWND hDlg,
                            UINT uMsg)
{
    switch (uMsg)
    {
    case WM_INITDIALOG:
        LOG4CXX_WARN(logger, szDialog << L" is not built yet.");
        if (bModal)
            EndDialog(hDlg, 0);
        return TRUE;
    case WM_CLOSE:
        if (bModal)
            EndDialog(hDlg, 0);
        else
            DestroyWindow(hDlg);
        return TRUE;
    default:
        return FALSE;
    }
}
