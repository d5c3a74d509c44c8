// The resource library and the agent's own resources, as built into bin/ beside this program.
// Ids and formats below are the ones the agent's code relies on, written out by number on purpose:
// a wrong number in resource.h then shows up as a missing or unexpected string.
#include <windows.h>
#include <commctrl.h>

#include "resource.h" // must coexist with the system headers

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace
{

std::wstring BinFolder()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path);
    return folder.substr(0, folder.find_last_of(L'\\') + 1);
}

HMODULE LoadAsData(const wchar_t* name)
{
    return LoadLibraryExW((BinFolder() + name).c_str(), nullptr,
                          LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
}

std::wstring LoadText(HMODULE module, UINT id)
{
    const wchar_t* text = nullptr;
    const int length = LoadStringW(module, id, reinterpret_cast<LPWSTR>(&text), 0);
    return length > 0 ? std::wstring(text, length) : std::wstring();
}

// The printf conversions of a format, in order, as length modifier plus conversion ("ls", "d").
// A trailing lone "%" comes back as "%", so a stray percent sign fails the comparison too.
std::vector<std::wstring> Conversions(const std::wstring& format)
{
    std::vector<std::wstring> found;
    for (size_t i = 0; i < format.size(); ++i)
    {
        if (format[i] != L'%')
            continue;
        if (i + 1 < format.size() && format[i + 1] == L'%')
        {
            ++i;
            continue;
        }
        size_t j = i + 1;
        while (j < format.size() && std::wcschr(L"-+ #0123456789.*", format[j]))
            ++j;
        const size_t start = j;
        while (j < format.size() && std::wcschr(L"hlLqjztwI", format[j]))
            ++j;
        found.push_back(j < format.size() ? format.substr(start, j - start + 1) : L"%");
        i = j;
    }
    return found;
}

using Formats = std::vector<std::wstring>;
const Formats kNone;
const Formats kInteger{L"d"};
const Formats kText{L"ls"};

struct StringCase
{
    UINT id;
    Formats conversions;
};

// Every string the agent loads. Wide strings are "%ls": mingw's C++ swprintf reads a plain "%s"
// as a narrow string, the Microsoft functions read "%ls" as wide too.
// clang-format off
const StringCase kStrings[] = {
    {6, {L"ls", L"ls"}}, // About version line: file version, ", 64 bit"
    {7, kNone},          // settings without write access: open anyway?
    {8, kNone},  {9, kNone},  {10, kNone}, {11, kNone},
    {12, kText},         // short reverse-connection report: the service's text
    {13, kNone}, {14, kNone},
    {15, kInteger},      // heading of the viewer list: count
    {16, kInteger},      // disconnect question: number of connections
    {17, kNone},
    {18, kInteger},      // exit question, asked as the disconnect question
    {19, kNone}, {20, kNone},
    {21, kInteger},      // permission countdown: seconds left
    {22, kNone},
    {23, kText},         // long reverse-connection report: detail text (host and port are appended)
    {25, kNone}, {26, kNone}, {27, kNone}, {33, kNone},
    {34, kNone}, {35, kNone}, {36, kNone}, {37, kNone}, {38, kNone}, {39, kNone}, // expiry choices
    {40, kNone}, {41, kNone}, {42, kNone}, {43, kNone}, {44, kNone}, {45, kNone},
    {47, kNone}, {48, kNone}, {49, kNone},
    {50, kInteger},      // invitations deleted: count
    {53, kNone}, {54, kNone}, {55, kNone}, {56, kNone}, {57, kNone}, {58, kNone},
    {59, kNone}, {60, kNone}, {61, kNone}, {62, kNone},
    {63, kInteger},      // invitations in use: count
    {65, kNone}, {66, kNone}, {67, kNone}, {68, kNone}, {69, kNone}, {70, kNone}, {71, kNone},
    {72, kNone}, {74, kNone}, // arguments of the permission dialog's own format
    {75, kNone}, {76, kNone}, {89, kNone},
    {116, kNone}, {117, kNone}, {118, kNone}, {119, kNone}, {120, kNone}, {121, kNone},
};
// clang-format on

const UINT kIcons[] = {7, 130, 107, 131}; // idle, connected, pending, extra
const int kIconSizes[] = {16, 20, 24, 32, 48};

class ResourceLibrary : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_lib = LoadAsData(L"KVNXSTRES.dll"); }
    static void TearDownTestSuite()
    {
        if (s_lib)
            FreeLibrary(s_lib);
        s_lib = nullptr;
    }
    void SetUp() override { ASSERT_NE(s_lib, nullptr) << "KVNXSTRES.dll missing beside the test"; }

    static HMODULE s_lib;
};
HMODULE ResourceLibrary::s_lib = nullptr;

TEST_F(ResourceLibrary, EveryStringLoadsWithExactlyItsPlaceholders)
{
    for (const StringCase& expected : kStrings)
    {
        const std::wstring text = LoadText(s_lib, expected.id);
        EXPECT_FALSE(text.empty()) << "string " << expected.id;
        EXPECT_EQ(Conversions(text), expected.conversions) << "string " << expected.id;
    }
    for (UINT id : {10u, 76u})
        EXPECT_EQ(LoadText(s_lib, id).rfind(L"https://", 0), 0u) << "link of string " << id;
}

TEST_F(ResourceLibrary, StringTableHoldsNoOtherIds)
{
    std::set<UINT> present;
    EnumResourceNamesW(
        s_lib, RT_STRING,
        [](HMODULE module, LPCWSTR, LPWSTR name, LONG_PTR found) -> BOOL
        {
            const UINT first = (static_cast<UINT>(reinterpret_cast<ULONG_PTR>(name)) - 1) * 16;
            for (UINT id = first; id < first + 16; ++id)
                if (!LoadText(module, id).empty())
                    reinterpret_cast<std::set<UINT>*>(found)->insert(id);
            return TRUE;
        },
        reinterpret_cast<LONG_PTR>(&present));

    for (const StringCase& expected : kStrings)
        present.erase(expected.id);
    EXPECT_TRUE(present.empty()) << "unexpected strings " << testing::PrintToString(present);
}

// Pixels of an icon loaded at exactly size x size, top row first, BGRA.
std::vector<DWORD> IconPixels(HICON icon, int size)
{
    ICONINFO info = {};
    std::vector<DWORD> pixels(size * size);
    if (!GetIconInfo(icon, &info))
        return {};
    BITMAPINFO bmi = {};
    bmi.bmiHeader.biSize = sizeof(bmi.bmiHeader);
    bmi.bmiHeader.biWidth = size;
    bmi.bmiHeader.biHeight = -size;
    bmi.bmiHeader.biPlanes = 1;
    bmi.bmiHeader.biBitCount = 32;
    HDC dc = GetDC(nullptr);
    const int rows = GetDIBits(dc, info.hbmColor, 0, size, pixels.data(), &bmi, DIB_RGB_COLORS);
    ReleaseDC(nullptr, dc);
    DeleteObject(info.hbmColor);
    DeleteObject(info.hbmMask);
    return rows == size ? pixels : std::vector<DWORD>();
}

// Every size exists as its own 32-bit image with real transparency, and loads at that size.
void ExpectIconSizes(HMODULE module, UINT id)
{
    HRSRC group = FindResourceW(module, MAKEINTRESOURCEW(id), RT_GROUP_ICON);
    ASSERT_NE(group, nullptr) << "icon " << id;
    auto* directory = static_cast<BYTE*>(LockResource(LoadResource(module, group)));
    ASSERT_NE(directory, nullptr);

    for (int size : kIconSizes)
    {
        SCOPED_TRACE(testing::Message() << "icon " << id << " at " << size << " px");
        const int image = LookupIconIdFromDirectoryEx(directory, TRUE, size, size, LR_DEFAULTCOLOR);
        HRSRC found = FindResourceW(module, MAKEINTRESOURCEW(image), RT_ICON);
        ASSERT_NE(found, nullptr);
        auto* header = static_cast<const BITMAPINFOHEADER*>(LockResource(LoadResource(module, found)));
        ASSERT_NE(header, nullptr);
        EXPECT_EQ(header->biWidth, size);
        EXPECT_EQ(header->biHeight, 2 * size); // colour and mask
        ASSERT_EQ(header->biBitCount, 32);

        const auto* bgra = reinterpret_cast<const BYTE*>(header + 1);
        int clear = 0, opaque = 0;
        for (int i = 0; i < size * size; ++i)
        {
            clear += bgra[4 * i + 3] == 0;
            opaque += bgra[4 * i + 3] == 255;
        }
        EXPECT_GT(clear, 0) << "no transparent pixel";
        EXPECT_GT(opaque, size * size / 3) << "mostly see-through";

        HICON icon = static_cast<HICON>(LoadImageW(module, MAKEINTRESOURCEW(id), IMAGE_ICON, size, size, 0));
        ASSERT_NE(icon, nullptr);
        ICONINFO info = {};
        BITMAP bitmap = {};
        ASSERT_TRUE(GetIconInfo(icon, &info));
        GetObjectW(info.hbmColor, sizeof(bitmap), &bitmap);
        EXPECT_EQ(bitmap.bmWidth, size);
        EXPECT_EQ(bitmap.bmHeight, size);
        DeleteObject(info.hbmColor);
        DeleteObject(info.hbmMask);
        DestroyIcon(icon);
    }
}

TEST_F(ResourceLibrary, EveryIconHasEverySize)
{
    for (UINT id : kIcons)
        ExpectIconSizes(s_lib, id);
}

TEST_F(ResourceLibrary, IconsTellApartAt16Pixels)
{
    std::vector<std::vector<DWORD>> pixels;
    for (UINT id : kIcons)
    {
        HICON icon = static_cast<HICON>(LoadImageW(s_lib, MAKEINTRESOURCEW(id), IMAGE_ICON, 16, 16, 0));
        ASSERT_NE(icon, nullptr) << "icon " << id;
        pixels.push_back(IconPixels(icon, 16));
        DestroyIcon(icon);
        ASSERT_EQ(pixels.back().size(), 256u) << "icon " << id;
    }
    for (size_t a = 0; a < pixels.size(); ++a)
    {
        for (size_t b = a + 1; b < pixels.size(); ++b)
        {
            int different = 0;
            for (size_t i = 0; i < 256; ++i)
            {
                int largest = 0;
                for (int shift = 0; shift < 32; shift += 8)
                {
                    const int d = static_cast<int>((pixels[a][i] >> shift) & 0xFF) -
                                  static_cast<int>((pixels[b][i] >> shift) & 0xFF);
                    largest = std::max(largest, d < 0 ? -d : d);
                }
                different += largest > 48;
            }
            // A coloured screen is some 80 pixels at this size; a sign alone is a dozen.
            EXPECT_GE(different, 24) << "icons " << kIcons[a] << " and " << kIcons[b];
        }
    }
}

TEST_F(ResourceLibrary, ScaledBannerIsTheLargerBanner)
{
    BITMAP scaled = {}, normal = {};
    for (auto [id, bitmap] : {std::pair{137, &scaled}, std::pair{IDB_BANNER, &normal}})
    {
        HBITMAP loaded = static_cast<HBITMAP>(LoadImageW(s_lib, MAKEINTRESOURCEW(id), IMAGE_BITMAP, 0, 0, 0));
        ASSERT_NE(loaded, nullptr) << "bitmap " << id;
        GetObjectW(loaded, sizeof(*bitmap), bitmap);
        DeleteObject(loaded);
    }
    EXPECT_GT(normal.bmWidth, 3 * normal.bmHeight) << "a banner is a wide strip";
    EXPECT_GT(scaled.bmWidth, normal.bmWidth);
    EXPECT_EQ(scaled.bmWidth * normal.bmHeight, normal.bmWidth * scaled.bmHeight) << "same proportions";
}

// A string of a version block through its first translation, as the About box reads it.
std::wstring VersionText(const std::vector<BYTE>& block, const wchar_t* name)
{
    struct Translation
    {
        WORD language, codePage;
    }* translation = nullptr;
    UINT size = 0;
    if (!VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translation),
                        &size) ||
        size < sizeof(Translation))
        return L"(no translation)";
    wchar_t path[128];
    swprintf(path, 128, L"\\StringFileInfo\\%04hx%04hx\\%ls", translation->language, translation->codePage,
             name);
    wchar_t* value = nullptr;
    if (!VerQueryValueW(block.data(), path, reinterpret_cast<void**>(&value), &size) || !value)
        return L"(missing)";
    return value;
}

struct VersionBlock
{
    std::vector<BYTE> data;
    VS_FIXEDFILEINFO fixed = {};
    std::wstring fixedText;
};

VersionBlock ReadVersion(const wchar_t* file)
{
    VersionBlock v;
    const std::wstring path = BinFolder() + file;
    v.data.resize(GetFileVersionInfoSizeW(path.c_str(), nullptr));
    if (v.data.empty() ||
        !GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(v.data.size()), v.data.data()))
        return v;
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT size = 0;
    if (VerQueryValueW(v.data.data(), L"\\", reinterpret_cast<void**>(&fixed), &size) && fixed)
    {
        v.fixed = *fixed;
        v.fixedText = std::to_wstring(HIWORD(fixed->dwFileVersionMS)) + L"." +
                      std::to_wstring(LOWORD(fixed->dwFileVersionMS)) + L"." +
                      std::to_wstring(HIWORD(fixed->dwFileVersionLS)) + L"." +
                      std::to_wstring(LOWORD(fixed->dwFileVersionLS));
    }
    return v;
}

TEST(AgentResources, VersionBlocksOfExeAndLibraryAgree)
{
    const VersionBlock exe = ReadVersion(L"KVNXST.exe");
    const VersionBlock dll = ReadVersion(L"KVNXSTRES.dll");
    ASSERT_FALSE(exe.data.empty()) << "KVNXST.exe without version information";
    ASSERT_FALSE(dll.data.empty()) << "KVNXSTRES.dll without version information";

    EXPECT_EQ(VersionText(exe.data, L"FileVersion"), exe.fixedText);
    EXPECT_EQ(VersionText(exe.data, L"ProductVersion"), exe.fixedText);
    EXPECT_NE(VersionText(exe.data, L"LegalCopyright").find(L"Kestrova Development"), std::wstring::npos);
    EXPECT_EQ(VersionText(exe.data, L"CompanyName"), L"Kestrova Development");
    EXPECT_EQ(VersionText(exe.data, L"ProductName"), L"Kestrova Vexa Remote Control");
    EXPECT_EQ(VersionText(exe.data, L"OriginalFilename"), L"KVNXST.exe");
    EXPECT_NE(VersionText(exe.data, L"FileDescription"), L"(missing)");
    EXPECT_EQ(exe.fixed.dwFileType, static_cast<DWORD>(VFT_APP));

    EXPECT_EQ(dll.fixedText, exe.fixedText);
    EXPECT_EQ(VersionText(dll.data, L"FileVersion"), exe.fixedText);
    EXPECT_EQ(VersionText(dll.data, L"OriginalFilename"), L"KVNXSTRES.dll");
    EXPECT_EQ(dll.fixed.dwFileType, static_cast<DWORD>(VFT_DLL));
}

// The first element <tag ...>...</tag> or <tag .../> that contains `containing`, or "".
std::string Element(const std::string& xml, const std::string& tag, const std::string& containing = "")
{
    for (size_t at = xml.find("<" + tag); at != std::string::npos; at = xml.find("<" + tag, at + 1))
    {
        const size_t afterName = at + 1 + tag.size();
        if (afterName >= xml.size() || !std::strchr(" \t\r\n/>", xml[afterName]))
            continue; // a longer name such as dpiAwareness for dpiAware
        const size_t open = xml.find('>', at);
        if (open == std::string::npos)
            break;
        size_t end = open + 1;
        if (xml[open - 1] != '/')
        {
            end = xml.find("</" + tag + ">", open);
            if (end == std::string::npos)
                break;
            end += tag.size() + 3;
        }
        const std::string element = xml.substr(at, end - at);
        if (element.find(containing) != std::string::npos)
            return element;
    }
    return "";
}

// Wine runs without a manifest, so the embedded XML is what proves the exe asks for these.
TEST(AgentResources, ManifestAsksForControls6PerMonitorDpiAsInvokerAndWindows10)
{
    HMODULE exe = LoadAsData(L"KVNXST.exe");
    ASSERT_NE(exe, nullptr) << "KVNXST.exe missing beside the test";
    HRSRC found = FindResourceW(exe, MAKEINTRESOURCEW(1), RT_MANIFEST);
    ASSERT_NE(found, nullptr) << "no RT_MANIFEST 1";
    const std::string xml(static_cast<const char*>(LockResource(LoadResource(exe, found))),
                          SizeofResource(exe, found));

    const std::string controls = Element(xml, "assemblyIdentity", "\"Microsoft.Windows.Common-Controls\"");
    EXPECT_NE(controls.find("version=\"6.0.0.0\""), std::string::npos) << controls;
    EXPECT_NE(controls.find("publicKeyToken=\"6595b64144ccf1df\""), std::string::npos) << controls;

    const std::string awareness = Element(xml, "dpiAwareness");
    EXPECT_NE(awareness.find(">PerMonitorV2"), std::string::npos) << "PerMonitorV2 must be the first choice";
    EXPECT_NE(Element(xml, "dpiAware").find(">true/pm<"), std::string::npos);
    EXPECT_NE(Element(xml, "requestedExecutionLevel").find("level=\"asInvoker\""), std::string::npos);
    EXPECT_NE(Element(xml, "supportedOS", "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"), "");
    FreeLibrary(exe);
}

// Without KVNXSTRES.dll the agent takes its icons from its own module.
TEST(AgentResources, ExeCarriesTheIdleIcon)
{
    HMODULE exe = LoadAsData(L"KVNXST.exe");
    ASSERT_NE(exe, nullptr);
    ExpectIconSizes(exe, 7);
    FreeLibrary(exe);
}

} // namespace
