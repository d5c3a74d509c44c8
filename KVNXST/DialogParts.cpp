#include "DialogParts.h"

#include "ResourceText.h"
#include "resource.h"

#include <commctrl.h>
#include <shellapi.h>

void KvScaledBanner::Apply(HWND hDlg, log4cxx::LoggerPtr& logger)
{
    HDC hdc = GetDC(hDlg);
    const int nDpi = hdc != nullptr ? GetDeviceCaps(hdc, LOGPIXELSX) : 96;
    if (hdc != nullptr)
        ReleaseDC(hDlg, hdc);
    LOG4CXX_DEBUG(logger, L"nDpi=" << nDpi);
    if (nDpi <= 96)
        return;
    m_bitmap.Reset(LoadImageW(KvResourceModule(), MAKEINTRESOURCEW(IDB_BITMAP_INTERNET_SESSION_BANNER),
                              IMAGE_BITMAP, 0, 0, 0));
    if (!m_bitmap)
    {
        LOG4CXX_WARN(logger, L"Failed to load IDB_BITMAP_INTERNET_SESSION_BANNER scale bitmap.");
        return;
    }
    // The control hands back the template's bitmap, which is then nobody's.
    const HGDIOBJ hOld = reinterpret_cast<HGDIOBJ>(SendDlgItemMessageW(
        hDlg, IDC_BANNER, STM_SETIMAGE, IMAGE_BITMAP, reinterpret_cast<LPARAM>(m_bitmap.Get())));
    if (hOld != nullptr && hOld != m_bitmap.Get())
        DeleteObject(hOld);
}

void KvOpenLinkOnNotify(HWND hDlg, LPARAM lParam, UINT uUrlId)
{
    const auto* pHeader = reinterpret_cast<const NMHDR*>(lParam);
    if (pHeader != nullptr && pHeader->idFrom == IDC_LINK &&
        (pHeader->code == NM_CLICK || pHeader->code == NM_RETURN))
        ShellExecuteW(hDlg, L"open", KvLoadText(uUrlId).c_str(), nullptr, nullptr, SW_SHOWNORMAL);
}
