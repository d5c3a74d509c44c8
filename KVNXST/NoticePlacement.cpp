#include "NoticePlacement.h"

namespace
{
constexpr long kTaskbarGap = 4;
constexpr long kMinimumMargin = 30;
} // namespace

KvScreenPoint KvPlaceBesideTaskbar(unsigned int uEdge, const KvScreenRect& taskbar,
                                   const KvScreenRect& monitorWork, long w, long h)
{
    const long cxMonitor = monitorWork.right - monitorWork.left;
    const long cyMonitor = monitorWork.bottom - monitorWork.top;
    switch (uEdge)
    {
    case KV_EDGE_BOTTOM:
        return {cxMonitor - w - kTaskbarGap, taskbar.top - h - kTaskbarGap};
    case KV_EDGE_RIGHT:
        return {taskbar.left - w - kTaskbarGap, cyMonitor - h - kTaskbarGap};
    default:
        return {cxMonitor - w - kTaskbarGap, cyMonitor - h - kTaskbarGap};
    }
}

KvScreenPoint KvPlaceInWorkArea(const KvScreenRect* workArea, long cxFullScreen, long cyFullScreen, long w,
                                long h)
{
    if (workArea == nullptr)
        return {cxFullScreen - w - kMinimumMargin, cyFullScreen - h - kMinimumMargin};
    const long gap = cyFullScreen - workArea->bottom;
    const long margin = gap > kMinimumMargin ? gap : kMinimumMargin;
    return {workArea->right - margin - w, workArea->bottom - margin - h};
}

std::wstring KvComposeNoticeBody(const KvNoticeLines& lines, std::size_t cchMax)
{
    std::wstring body = lines.first;
    for (int i = 0; i < 3; ++i)
    {
        if (i == 1 && lines.fields[1].empty())
            continue;
        body += L"\r\n" + lines.labels[i] + lines.fields[i];
    }
    if (!lines.selectorNote.empty())
        body += L"\r\n" + lines.selectorNote;
    if (cchMax > 0 && body.size() > cchMax - 1)
        body.resize(cchMax - 1);
    return body;
}
