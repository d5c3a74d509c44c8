// The connect-to-client dialog in this process against the user's real list key (kept aside and put
// back): what stored lists offer, the request OK fills, what it stores, and the checks it makes.
#include "registry_values.h"
#include "resident_agent.h"

#include "ConnectToClientDialog.h"
#include "KVNXSTWindow.h"
#include "UiDriver.h"
#include "resource.h"

#include <future>
#include <map>
#include <memory>

using namespace kvtest;

namespace
{

constexpr wchar_t kKey[] = L"Software\\Kestrova Development\\Vexa Remote Control\\Reverse Connection";
using Values = RegistryValues;

// "name=value;..." (a value "#n" is a number, "@n" n letters x); "hosts" is "Host n=hn", n = 0 to 52.
Values Parse(const std::wstring& entries)
{
    Values values;
    std::wistringstream in(entries);
    for (std::wstring entry, value; std::getline(in, entry, L';');)
    {
        value = entry.substr(entry.find(L'=') + 1);
        values[entry.substr(0, entry.find(L'='))] =
            value[0] == L'@' ? std::wstring(std::stoul(value.substr(1)), L'x') : value;
    }
    for (int n = 0; values.count(L"hosts") != 0 && n < 53; ++n)
        values[L"Host " + std::to_wstring(n)] = L"h" + std::to_wstring(n);
    values.erase(L"hosts");
    return values;
}

// A control as the user sees it: its text, "[x]" or "[ ]" for a check box, "/off" when disabled,
// "/#n" for a combo box of n items.
std::wstring State(HWND hDlg, int nId)
{
    const kvui::Control c = kvui::ReadControl(hDlg, nId).value_or(kvui::Control{});
    const LRESULT nItems = c.className == L"ComboBox" ? SendMessageW(c.hWnd, CB_GETCOUNT, 0, 0) : -1;
    const std::wstring shown = c.checked < 0 ? c.text : std::wstring(c.checked != 0 ? L"[x]" : L"[ ]");
    return shown + (c.enabled ? L"" : L"/off") + (nItems < 0 ? L"" : L"/#" + std::to_wstring(nItems));
}

struct Case
{
    const char* what;
    std::uint32_t uConnectOption;
    const wchar_t* stored; // as Parse reads them, like after

    // "type ID text", "click ID" (1 OK, 2 Cancel), "see ID state",
    // "refuse STRING ID" (OK refused with the string, the focus on the control).
    const wchar_t* steps;
    INT_PTR nResult;
    const wchar_t *szHost, *szProxyHost, *szSecret;
    DWORD dwPort, bUseProxy, dwProxyPort;
    // Values after OK; "name=-" must be missing. Without OK the key stays as stored.
    const wchar_t* after;
};

const Case kCases[] = {
    {"gaps and empty entries, a known host typed with backslashes, only the last proxy; no secret kept", 1,
     L"Host 0=alpha;Port 0=#6000;Host 1=;Host 2=beta;Host 4=e;Last=beta;Port=#5000;Proxy Host 0=pa;"
     L"Proxy Port 0=#3128;Proxy Host 1=pb;Proxy Last=pb;Proxy Port=#8080;Use Proxy=#1",
     L"see 1025 beta/#2;see 1026 5000;see 1029 pb/#1;see 1018 [x];see 1030 8080;see 1019 [ ];see 1022 /off;"
     L"type 1025 \\\\BETA;type 1026 7000;click 1019;type 1022 s3cret;click 1",
     1, L"BETA", L"pb", L"s3cret", 7000, 1, 8080,
     L"Host 0=alpha;Port 0=#6000;Host 1=beta;Port 1=#6127;Host 2=beta;Port 2=-;Host 3=-;Host 4=e;Last=BETA;"
     L"Port=#7000;Proxy Host 0=pb;Proxy Port 0=#8080;Proxy Host 1=pb;Proxy 0=-;Proxy Last=pb;"
     L"Proxy Port=#8080;Use Proxy=#1;Use Proxy Secret=#1"},
    {"a wrong type or more than 2,050 bytes ends a list; Defaults; Cancel stores nothing", 1,
     L"Host 0=@1024;Port 0=@2;Host 1=#5;Host 2=c;Proxy 0=p;Proxy 1=@1025;Proxy 2=q;Port=#5000;"
     L"Proxy Port=#3000;Use Proxy=#1;Use Proxy Secret=#1",
     L"see 1025 /#1;see 1029 /#1;see 1026 5000;click 1027;see 1026 6130;see 1030 6127;see 1018 [ ];"
     L"see 1019 [ ];see 1029 /#1;click 2",
     2, L"", L"", L"", 0, 0, 0, L""},
    {"only entries 0 to 50; without proxy capability both boxes are cleared and disabled", 0,
     L"hosts;Use Proxy=#1;Use Proxy Secret=#1;Proxy Last=pz",
     L"see 1025 /#51;see 1018 [ ]/off;see 1019 [ ]/off;see 1029 pz/#1;type 1025 new;click 1", 1, L"new", L"",
     L"", 6130, 0, 0,
     L"Host 50=h50;Port 50=#6127;Host 51=h51;Port 51=-;Last=new;Port=#6130;Use Proxy=#0;"
     L"Use Proxy Secret=#0;Proxy Port=#0;Proxy Host 0=pz;Proxy Port 0=#6127;Proxy Last=pz"},
    {"OK checks host, port, secret and proxy port in turn", 1, L"",
     L"click 1018;click 1019;type 1030 ;type 1026 ;refuse 71 1025;type 1025 h;refuse 70 1026;"
     L"type 1026 59x;refuse 66 1022;type 1022 pw;refuse 65 1030;click 1019;type 1030 3128;click 1",
     1, L"h", L"", L"", 59, 1, 3128,
     L"Host 0=h;Last=h;Port=#59;Proxy Host 0=-;Proxy Port=#3128;Use Proxy=#1;Use Proxy Secret=#0"},
};

// One step against the open dialog; its thread works on, so each step waits for what it acts on.
void Step(HWND hDlg, const std::wstring& desktop, const std::wstring& step)
{
    std::wistringstream in(step);
    std::wstring verb, arg;
    int nId = 0;
    std::getline(in >> verb >> nId >> std::ws, arg);
    const bool bCombo = nId == IDC_REVERSE_HOST || nId == IDC_REVERSE_PROXY_HOST;
    EXPECT_TRUE(
        verb != L"type" ||
        WaitUntil(
            [&] { return kvui::TypeText(bCombo ? GetDlgItem(hDlg, nId) : hDlg, bCombo ? 1001 : nId, arg); }));
    ASSERT_TRUE((verb != L"click" && verb != L"refuse") ||
                kvui::ClickButton(hDlg, verb == L"click" ? nId : IDOK));
    EXPECT_TRUE(verb != L"see" || WaitUntil([&] { return State(hDlg, nId) == arg; }))
        << Narrow(State(hDlg, nId));
    if (verb != L"refuse")
        return;
    HWND hBox = kvui::WaitForWindow({L"#32770", L"Kestrova Vexa Remote Control", 0, desktop, true}, kE2eWait);
    ASSERT_NE(nullptr, hBox) << Narrow(step);
    EXPECT_EQ(Narrow(ResourceText(g_hResInstance, nId)), Narrow(kvui::ReadControl(hBox, 0xFFFF)->text));
    ASSERT_TRUE(kvui::ClickButton(hBox, IDOK) && kvui::WaitUntilGone(hBox, kE2eWait));
    HWND hFocus = GetDlgItem(hDlg, std::stoi(arg));
    GUITHREADINFO gti{};
    gti.cbSize = sizeof gti;
    const DWORD dwThread = GetWindowThreadProcessId(hDlg, nullptr);
    const auto focused = [&] { return GetGUIThreadInfo(dwThread, &gti) ? gti.hwndFocus : nullptr; };
    EXPECT_TRUE(WaitUntil([&] { return focused() == hFocus || GetParent(focused()) == hFocus; }))
        << Narrow(step);
}

INT_PTR Show(const TestDesktop* pDesktop, MSG_REVERSE_CONNECTION* pRequest)
{
    pDesktop->SetOnThisThread();
    return KvShowDialog(nullptr, IDD_CONNECT_TO_CLIENT, ConnectToClient, reinterpret_cast<LPARAM>(pRequest));
}

} // namespace

TEST(ConnectToClientDialog, OffersTheStoredListsFillsTheRequestAndStoresWhatWasSent)
{
    // The user's own lists wait aside while the test runs.
    const std::shared_ptr<void> restore(nullptr, [kept = ReadRegistryValues(kKey)](void*)
                                        { WriteRegistryValues(kKey, kept); });
    const TestDesktop desktop(std::wstring(), L"1024x768");
    g_hResInstance = LoadResourceLibraryFrom(ModuleFolder().c_str(), nullptr);
    ASSERT_TRUE(g_hResInstance != nullptr && desktop.Created());
    for (const Case& c : kCases)
    {
        SCOPED_TRACE(c.what);
        const Values stored = Parse(c.stored);
        WriteRegistryValues(kKey, stored);

        auto request = std::make_unique<MSG_REVERSE_CONNECTION>(),
             want = std::make_unique<MSG_REVERSE_CONNECTION>();
        request->uConnectOption = c.uConnectOption;
        std::future<INT_PTR> shown = std::async(std::launch::async, Show, &desktop, request.get());
        HWND hDlg =
            kvui::WaitForWindow({L"#32770", L"Connect to a Viewer", 0, desktop.Name(), true}, kE2eWait);
        ASSERT_NE(nullptr, hDlg);
        std::wistringstream steps(c.steps);
        for (std::wstring step; std::getline(steps, step, L';');)
            Step(hDlg, desktop.Name(), step);
        ASSERT_EQ(std::future_status::ready, shown.wait_for(std::chrono::milliseconds(kE2eWait)));
        EXPECT_EQ(c.nResult, shown.get());

        // Byte for byte: the six fields the dialog fills, the capability it reads, nothing else.
        want->uConnectOption = c.uConnectOption;
        KvCopyString(want->szHost, c.szHost);
        want->dwPort = c.dwPort;
        want->bUseProxy = c.bUseProxy;
        KvCopyString(want->szProxyHost, c.szProxyHost);
        want->dwProxyPort = c.dwProxyPort;
        KvCopyString(want->szProxySecret, c.szSecret);
        EXPECT_EQ(0, std::memcmp(want.get(), request.get(), sizeof *want)) << Narrow(KvWide(request->szHost));
        const Values now = ReadRegistryValues(kKey);
        EXPECT_TRUE(c.nResult == 1 || now == stored) << "stored without OK";
        for (const auto& [name, value] : Parse(c.after))
            EXPECT_EQ(Narrow(value), Narrow(now.count(name) != 0 ? now.at(name) : L"-")) << Narrow(name);
        // The secret is sent, never stored.
        for (const auto& [name, value] : now)
            EXPECT_EQ(std::wstring::npos, value.find(L"s3cret")) << Narrow(name);
    }
}
