#include "SFT_DropDialog.h"

#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "ResourceText.h"
#include "SFT_DropFiles.h"
#include "SFT_DropTarget.h"
#include "ServiceText.h"
#include "resource.h"

#include <cderr.h>
#include <commdlg.h>

#include <cstring>
#include <string>
#include <vector>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SFT_DropWindow));

namespace
{

// Room for the open-file dialog's answer: a folder and over a thousand long names.
constexpr DWORD KV_CHOOSE_BUFFER_UNITS = 512 * 1024;
// Windows of several viewers stand one above the other from the work area's corner; past this
// many they start again at the corner.
constexpr DWORD KV_DROP_WINDOW_STACK = 6;

class CDropDialog final : private CDropTarget::Listener
{
public:
    CDropDialog(HWND hDlg, const MSG_TRAYICON_SFT_DROP_CLIENT& drop) : m_hDlg(hDlg), m_drop(drop) {}

    void OnInit();
    void OnDestroy();
    void RequestClose();
    void ChooseFiles();
    HBRUSH AreaColours(HDC hdc) const;

private:
    void OnHover(bool bHovering) override;
    void OnFilesDropped(const std::vector<std::wstring>& names) override;
    void Deliver(const std::vector<std::wstring>& names);
    void ShowStatus(UINT uText);
    void Place();

    HWND m_hDlg;
    MSG_TRAYICON_SFT_DROP_CLIENT m_drop;
    CDropTarget* m_pTarget = nullptr;
    bool m_bHover = false;
    bool m_bChoosing = false;
    bool m_bClosePending = false;
    bool m_bDelivered = false; // the files are with the service: its event is set on closing
};

CDropDialog* DialogOf(HWND hDlg)
{
    return reinterpret_cast<CDropDialog*>(GetWindowLongPtrW(hDlg, GWLP_USERDATA));
}

void CDropDialog::OnInit()
{
    const std::wstring viewer = KvShowableFieldW(m_drop.szViewerName);
    std::wstring line;
    if (viewer.empty())
        line = KvLoadText(IDS_SFT_SEND_TO_VIEWER);
    else
    {
        std::vector<wchar_t> text(1024);
        _snwprintf_s(text.data(), text.size(), _TRUNCATE, KvLoadText(IDS_SFT_SEND_TO_FMT).c_str(),
                     viewer.c_str());
        line = text.data();
    }
    SetDlgItemTextW(m_hDlg, IDC_SFT_VIEWER, line.c_str());

    m_pTarget = new CDropTarget(*this);
    const HRESULT hr = RegisterDragDrop(m_hDlg, m_pTarget);
    if (FAILED(hr))
    {
        // The button still takes files.
        LOG4CXX_ERROR(logger, L"RegisterDragDrop failed. hr = 0x" << std::hex << hr);
        m_pTarget->Detach();
        m_pTarget->Release();
        m_pTarget = nullptr;
    }
    Place();
    LOG4CXX_INFO(logger,
                 L"Drop window for viewer " << m_drop.dwViewerId << L" at position " << m_drop.dwPosition);
}

void CDropDialog::Place()
{
    RECT rcWork = {}, rcDlg = {};
    if (!SystemParametersInfoW(SPI_GETWORKAREA, 0, &rcWork, 0) || !GetWindowRect(m_hDlg, &rcDlg))
        return;
    const int cx = rcDlg.right - rcDlg.left, cy = rcDlg.bottom - rcDlg.top;
    const int nGap = GetSystemMetrics(SM_CYCAPTION) / 2;
    const int nSlot = static_cast<int>(m_drop.dwPosition % KV_DROP_WINDOW_STACK);
    SetWindowPos(m_hDlg, nullptr, rcWork.right - cx - nGap, rcWork.bottom - (cy + nGap) * (nSlot + 1), 0, 0,
                 SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void CDropDialog::OnDestroy()
{
    if (m_pTarget != nullptr)
    {
        RevokeDragDrop(m_hDlg);
        m_pTarget->Detach();
        m_pTarget->Release();
        m_pTarget = nullptr;
    }
    if (m_bDelivered)
        KvSetServiceEvent(
            KvReadWideString(m_drop.szEventName).c_str());
    const HWND hTray = reinterpret_cast<HWND>(static_cast<ULONG_PTR>(m_drop.hTrayWnd));
    PostMessageW(hTray, WM_KV_DROP_WINDOW, 1001, static_cast<LPARAM>(m_drop.dwViewerId));
    LOG4CXX_INFO(logger, L"Drop window for viewer " << m_drop.dwViewerId << L" closed.");
}

void CDropDialog::RequestClose()
{
    if (!m_bChoosing)
    {
        DestroyWindow(m_hDlg);
        return;
    }
    // The open-file dialog runs a loop of its own inside ChooseFiles: it is cancelled, and the
    // window goes once that loop has returned.
    m_bClosePending = true;
    if (HWND hChooser = GetWindow(m_hDlg, GW_ENABLEDPOPUP); hChooser != nullptr && hChooser != m_hDlg)
        PostMessageW(hChooser, WM_COMMAND, IDCANCEL, 0);
}

void CDropDialog::ChooseFiles()
{
    std::vector<wchar_t> buffer(KV_CHOOSE_BUFFER_UNITS, L'\0');
    const std::wstring title = KvLoadText(IDS_SFT_CHOOSE_TITLE);
    OPENFILENAMEW ofn = {};
    ofn.lStructSize = sizeof ofn;
    ofn.hwndOwner = m_hDlg;
    ofn.lpstrFile = buffer.data();
    ofn.nMaxFile = static_cast<DWORD>(buffer.size());
    ofn.lpstrTitle = title.c_str();
    ofn.Flags = OFN_EXPLORER | OFN_ALLOWMULTISELECT | OFN_FILEMUSTEXIST | OFN_PATHMUSTEXIST |
                OFN_HIDEREADONLY | OFN_NOCHANGEDIR;
    m_bChoosing = true;
    const BOOL bChosen = GetOpenFileNameW(&ofn);
    m_bChoosing = false;
    if (m_bClosePending)
    {
        DestroyWindow(m_hDlg);
        return;
    }
    if (!bChosen)
    {
        const DWORD dwError = CommDlgExtendedError();
        if (dwError == FNERR_BUFFERTOOSMALL)
            ShowStatus(IDS_SFT_TOO_MANY);
        else if (dwError != 0)
            LOG4CXX_WARN(logger, L"The open-file dialog failed. Error = 0x" << std::hex << dwError);
        return;
    }

    // One file: its full path. Several: the folder, then each name; a NUL after the last.
    buffer.back() = L'\0';
    std::vector<std::wstring> parts;
    for (const wchar_t* p = buffer.data(); *p != L'\0'; p += parts.back().size() + 1)
        parts.emplace_back(p);
    std::vector<std::wstring> names;
    if (parts.size() == 1)
        names = parts;
    for (std::size_t i = 1; i < parts.size(); ++i)
    {
        const std::wstring& folder = parts[0];
        names.push_back(folder + (!folder.empty() && folder.back() == L'\\' ? L"" : L"\\") + parts[i]);
    }
    Deliver(names);
}

void CDropDialog::OnHover(bool bHovering)
{
    m_bHover = bHovering;
    InvalidateRect(GetDlgItem(m_hDlg, IDC_SFT_DROP_AREA), nullptr, TRUE);
}

void CDropDialog::OnFilesDropped(const std::vector<std::wstring>& names)
{
    Deliver(names);
}

void CDropDialog::Deliver(const std::vector<std::wstring>& names)
{
    if (names.empty())
    {
        LOG4CXX_WARN(logger, L"The drop held no files.");
        ShowStatus(IDS_SFT_NOTHING_SENT);
        return;
    }
    if (KvSendDroppedFiles(m_drop, names, m_hDlg) == 0)
    {
        ShowStatus(IDS_SFT_NOTHING_SENT);
        return;
    }
    // Closed from the queue: a drop arrives inside OLE's call, which must return first. The event
    // is set as the window goes.
    m_bDelivered = true;
    PostMessageW(m_hDlg, WM_KV_DROP_WINDOW, 0, 0);
}

void CDropDialog::ShowStatus(UINT uText)
{
    SetDlgItemTextW(m_hDlg, IDC_SFT_STATUS, KvLoadText(uText).c_str());
    MessageBeep(MB_ICONWARNING);
}

HBRUSH CDropDialog::AreaColours(HDC hdc) const
{
    if (!m_bHover)
        return nullptr;
    SetTextColor(hdc, GetSysColor(COLOR_HIGHLIGHTTEXT));
    SetBkColor(hdc, GetSysColor(COLOR_HIGHLIGHT));
    return GetSysColorBrush(COLOR_HIGHLIGHT);
}

} // namespace

INT_PTR CALLBACK SFTDropWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    if (uMsg == WM_INITDIALOG)
    {
        const auto* pBlock = reinterpret_cast<const MSG_TRAYICON_SFT_DROP_CLIENT*>(lParam);
        if (pBlock == nullptr)
            return FALSE;
        auto* pDialog = new CDropDialog(hDlg, *pBlock);
        SetWindowLongPtrW(hDlg, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(pDialog));
        pDialog->OnInit();
        return TRUE;
    }
    CDropDialog* pDialog = DialogOf(hDlg);
    if (pDialog == nullptr)
        return FALSE;
    switch (uMsg)
    {
    case WM_COMMAND:
        if (LOWORD(wParam) == IDC_SFT_CHOOSE)
            pDialog->ChooseFiles();
        else if (LOWORD(wParam) == IDCANCEL)
            pDialog->RequestClose();
        return TRUE;
    case WM_CLOSE:
        pDialog->RequestClose();
        return TRUE;
    case WM_KV_DROP_WINDOW:
        if (wParam == 0 && lParam == 0)
            pDialog->RequestClose();
        return TRUE;
    case WM_CTLCOLORSTATIC:
        if (reinterpret_cast<HWND>(lParam) == GetDlgItem(hDlg, IDC_SFT_DROP_AREA))
            if (HBRUSH hBrush = pDialog->AreaColours(reinterpret_cast<HDC>(wParam)))
                return reinterpret_cast<INT_PTR>(hBrush);
        return FALSE;
    case WM_DESTROY:
        pDialog->OnDestroy();
        return TRUE;
    case WM_NCDESTROY:
        SetWindowLongPtrW(hDlg, GWLP_USERDATA, 0);
        delete pDialog;
        return TRUE;
    default:
        return FALSE;
    }
}
