// What the join and certificate dialogs share: the banner across the top and the link to a page
// that explains the question.
#pragma once

#include "KvHandles.h"

#include <log4cxx/logger.h>

#include <windows.h>

// The templates carry the 96-DPI banner; nobody stretches it on a scaled screen, so the larger one
// takes its place there.
class KvScaledBanner
{
public:
    // Above 96 DPI puts bitmap IDB_BITMAP_INTERNET_SESSION_BANNER into the dialog's IDC_BANNER; a
    // failed load is logged under the dialog's logger and the template's banner stays.
    void Apply(HWND hDlg, log4cxx::LoggerPtr& logger);
    // When the dialog goes: the bitmap it put in.
    void Release() { m_bitmap.Reset(); }

private:
    KvGdiObject m_bitmap;
};

// Opens the page of string uUrlId when the notification is a click on IDC_LINK, or Enter on it.
void KvOpenLinkOnNotify(HWND hDlg, LPARAM lParam, UINT uUrlId);
