// Where the agent's notices and questions sit on the screen, and what a connect or disconnect
// notice says: decisions kept free of the Windows headers so the host tests run them as they are.
#pragma once

#include <string>

struct KvScreenRect
{
    long left, top, right, bottom;
};

struct KvScreenPoint
{
    long x, y;
};

// Edges as the shell reports the taskbar's (ABE_LEFT .. ABE_BOTTOM).
constexpr unsigned int KV_EDGE_LEFT = 0;
constexpr unsigned int KV_EDGE_TOP = 1;
constexpr unsigned int KV_EDGE_RIGHT = 2;
constexpr unsigned int KV_EDGE_BOTTOM = 3;

// Top-left corner of a w x h window beside the taskbar, 4 pixels off it. The monitor's width and
// height serve as coordinates, not its right and bottom edges, on purpose: notices keep the place
// they have always had, also when the taskbar's monitor does not start at 0, 0.
KvScreenPoint KvPlaceBesideTaskbar(unsigned int uEdge, const KvScreenRect& taskbar,
                                   const KvScreenRect& monitorWork, long w, long h);

// Without the taskbar's position: the work area's corner with a margin of the gap between the
// full-screen height and the work area's bottom (at least 30) on both axes; without a work area
// (null) 30 pixels in from the full-screen corner.
KvScreenPoint KvPlaceInWorkArea(const KvScreenRect* workArea, long cxFullScreen, long cyFullScreen, long w,
                                long h);

// The text of a connect (first line: the connection header) or disconnect notice (first line:
// "disconnected"): one labelled line per field of the viewer's record, the second only when it
// has text, and the selector's note when there is one. Lines end in CR LF, the last has none;
// the result is cut at cchMax - 1 characters.
struct KvNoticeLines
{
    std::wstring first;
    std::wstring labels[3];
    std::wstring fields[3];
    std::wstring selectorNote; // empty: no note
};
std::wstring KvComposeNoticeBody(const KvNoticeLines& lines, std::size_t cchMax);
