// The resource library and the agent's own resources, as built into bin/ beside this program.
// Ids are written out by number on purpose: a wrong number in resource.h then shows up as a
// missing string, icon or bitmap.
#include <windows.h>

#include "ResourceTemplates.h"
#include "resource.h" // must coexist with the system headers

#include "test_logging_support.h"

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

namespace
{

HMODULE LoadAsData(const wchar_t* name)
{
    return LoadLibraryExW((kvtest::ModuleFolder() + name).c_str(), nullptr,
                          LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
}

// Every string the agent loads and the placeholders it fills in. Wide strings are "%ls": mingw's
// C++ swprintf reads a plain "%s" as a narrow string.
const struct
{
    UINT id;
    const char* conversions;
} kFormatted[] = {
    {6, "ls ls "}, // About version line: file version, ", 64 bit"
    {12, "ls "},   // short reverse-connection report: the service's text
    {15, "d "},    // heading of the viewer list: count
    {16, "d "},    // disconnect question: number of connections
    {18, "d "},    // exit question, asked as the disconnect question
    {21, "d "},    // permission countdown: seconds left
    {23, "ls "},   // long reverse-connection report: detail text (host and port are appended)
    {50, "d "},    // invitations deleted: count
    {63, "d "},    // invitations in use: count
    {150, "ls "},  // drop window: whom the files go to
};
const UINT kPlain[] = {7,  8,  9,  10, 11,  13,  14,  17,  19,  20,  22,  25,  26,  27, 33, 34,
                       35, 36, 37, 38, 39,  40,  41,  42,  43,  44,  45,  47,  48,  49, 53, 54,
                       55, 56, 57, 58, 59,  60,  61,  62,  65,  66,  67,  68,  69,  70, 71, 72,
                       74, 75, 76, 89, 116, 117, 118, 119, 120, 121, 151, 152, 153, 154};

const UINT kIcons[] = {7, 130, 107, 131}; // idle, connected, pending, extra

// The 32-bit BGRA pixels (bottom row first) of the image an icon group holds for size x size.
const BYTE* IconImage(HMODULE module, UINT id, int size)
{
    HRSRC group = FindResourceW(module, MAKEINTRESOURCEW(id), RT_GROUP_ICON);
    auto* directory = group ? static_cast<BYTE*>(LockResource(LoadResource(module, group))) : nullptr;
    const int image =
        directory ? LookupIconIdFromDirectoryEx(directory, TRUE, size, size, LR_DEFAULTCOLOR) : 0;
    HRSRC found = image ? FindResourceW(module, MAKEINTRESOURCEW(image), RT_ICON) : nullptr;
    auto* header =
        found ? static_cast<const BITMAPINFOHEADER*>(LockResource(LoadResource(module, found))) : nullptr;
    // Its own image at that size (colour and mask), 32 bits with real transparency.
    if (!header || header->biWidth != size || header->biHeight != 2 * size || header->biBitCount != 32)
        return nullptr;
    return reinterpret_cast<const BYTE*>(header + 1);
}

void ExpectEverySize(HMODULE module, UINT id)
{
    for (int size : {16, 20, 24, 32, 48})
    {
        const BYTE* bgra = IconImage(module, id, size);
        ASSERT_NE(nullptr, bgra) << "icon " << id << " at " << size << " px";
        int clear = 0, opaque = 0;
        for (int i = 0; i < size * size; ++i)
        {
            clear += bgra[4 * i + 3] == 0;
            opaque += bgra[4 * i + 3] == 255;
        }
        EXPECT_GT(clear, 0) << "icon " << id << " at " << size << " px has no transparent pixel";
        EXPECT_GT(opaque, size * size / 3) << "icon " << id << " at " << size << " px is mostly see-through";
    }
}

} // namespace

TEST(AgentResources, LibraryHoldsEveryStringWithExactlyItsPlaceholdersEveryIconAndTheBanners)
{
    HMODULE lib = LoadAsData(L"KVNXSTRES.dll");
    ASSERT_NE(lib, nullptr) << "KVNXSTRES.dll missing beside the test";
    for (const auto& expected : kFormatted)
        EXPECT_EQ(expected.conversions, kvui::Conversions(kvtest::ResourceText(lib, expected.id)))
            << "string " << expected.id;
    for (UINT id : kPlain)
    {
        const std::wstring text = kvtest::ResourceText(lib, id);
        EXPECT_FALSE(text.empty()) << "string " << id;
        EXPECT_EQ("", kvui::Conversions(text)) << "string " << id;
    }
    for (UINT id : {10u, 76u})
        EXPECT_EQ(0u, kvtest::ResourceText(lib, id).rfind(L"https://", 0)) << "link of string " << id;

    for (UINT id : kIcons)
        ExpectEverySize(lib, id);
    // Told apart at 16 px: a coloured screen is some 80 pixels, a sign alone a dozen.
    for (size_t a = 0; a < 4; ++a)
        for (size_t b = a + 1; b < 4; ++b)
        {
            const BYTE *pa = IconImage(lib, kIcons[a], 16), *pb = IconImage(lib, kIcons[b], 16);
            ASSERT_TRUE(pa && pb);
            auto apart = [&](int i) { return std::abs(pa[i] - pb[i]) > 48; };
            int different = 0;
            for (int i = 0; i < 1024; i += 4)
                different += apart(i) || apart(i + 1) || apart(i + 2) || apart(i + 3);
            EXPECT_GE(different, 24) << "icons " << kIcons[a] << " and " << kIcons[b];
        }

    BITMAP scaled = {}, normal = {};
    for (auto [id, bitmap] : {std::pair{137, &scaled}, std::pair{IDB_BANNER, &normal}})
    {
        HBITMAP loaded = static_cast<HBITMAP>(LoadImageW(lib, MAKEINTRESOURCEW(id), IMAGE_BITMAP, 0, 0, 0));
        EXPECT_TRUE(loaded && GetObjectW(loaded, sizeof(*bitmap), bitmap)) << "bitmap " << id;
        DeleteObject(loaded);
    }
    EXPECT_GT(scaled.bmWidth, normal.bmWidth);
    EXPECT_EQ(scaled.bmWidth * normal.bmHeight, normal.bmWidth * scaled.bmHeight) << "same proportions";
    FreeLibrary(lib);
}

// Wine runs without a manifest, so the embedded XML is what proves the exe asks for these.
TEST(AgentResources, ExeCarriesVersionInformationManifestAndTheIdleIcon)
{
    const std::wstring path = kvtest::ModuleFolder() + L"KVNXST.exe";
    std::vector<BYTE> block(GetFileVersionInfoSizeW(path.c_str(), nullptr));
    ASSERT_TRUE(!block.empty() &&
                GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()));
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT size = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &size));
    EXPECT_EQ(static_cast<DWORD>(VFT_APP), fixed->dwFileType);
    wchar_t version[32];
    swprintf(version, 32, L"%u.%u.%u.%u", HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
             HIWORD(fixed->dwFileVersionLS), LOWORD(fixed->dwFileVersionLS));
    // Through the first translation, as the About box reads them.
    WORD* translation = nullptr;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation",
                               reinterpret_cast<void**>(&translation), &size));
    auto text = [&](const wchar_t* name)
    {
        wchar_t query[128], *value = nullptr;
        swprintf(query, 128, L"\\StringFileInfo\\%04hx%04hx\\%ls", translation[0], translation[1], name);
        return VerQueryValueW(block.data(), query, reinterpret_cast<void**>(&value), &size) && value
                   ? std::wstring(value)
                   : L"(missing " + std::wstring(name) + L")";
    };
    EXPECT_EQ(version, text(L"FileVersion"));
    EXPECT_EQ(version, text(L"ProductVersion"));
    EXPECT_NE(std::wstring::npos, text(L"LegalCopyright").find(L"Kestrova Development"));
    EXPECT_EQ(L"Kestrova Vexa Remote Control", text(L"ProductName"));

    HMODULE exe = LoadAsData(L"KVNXST.exe");
    ASSERT_NE(exe, nullptr);
    HRSRC found = FindResourceW(exe, MAKEINTRESOURCEW(1), RT_MANIFEST);
    ASSERT_NE(found, nullptr) << "no RT_MANIFEST 1";
    const std::string xml(static_cast<const char*>(LockResource(LoadResource(exe, found))),
                          SizeofResource(exe, found));
    for (const char* element :
         {R"(<assemblyIdentity(?=[^>]*"Microsoft\.Windows\.Common-Controls")(?=[^>]*)"
          R"(version="6\.0\.0\.0")(?=[^>]*publicKeyToken="6595b64144ccf1df"))",
          R"(<dpiAwareness\b[^>]*>\s*PerMonitorV2\b)", // the first choice
          R"(<dpiAware\b[^>]*>\s*true/pm\s*<)", R"(<requestedExecutionLevel[^>]*level="asInvoker")",
          R"(<supportedOS[^>]*\{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a\})"})
        EXPECT_TRUE(std::regex_search(xml, std::regex(element))) << element << "\n" << xml;

    // Without KVNXSTRES.dll the agent takes its icons from its own module.
    ExpectEverySize(exe, 7);
    FreeLibrary(exe);
}
