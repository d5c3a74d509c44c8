// The permission question's start-up cost: from the simulator sending the request over the resident
// agent's link to the question's first paint (the agent starts a process of its own, which asks
// the service over its datagram socket and shows the dialog), next to starting a minimal process
// that sends one datagram. Medians of N rounds and their ratio, in one run.
//   usage: bench_permission [--rounds N]   (10)
// Every wait is bounded (15 s); a round that does not come ends the run with exit code 1.
#include "bench_median.h"
#include "bench_summary.h"
#include "resident_agent.h"

#include "UiDriver.h"

#include <winsock2.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace kvtest;

namespace
{

using Clock = std::chrono::steady_clock;

// Under Wine a console counts as attended only on the screen saver's desktop (see the e2e test).
const wchar_t kDesktop[] = L"Screen-saver";


double MsSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// Shown and with nothing left to paint.
bool Painted(HWND hWnd)
{
    return kvui::IsShown(hWnd) && !GetUpdateRect(hWnd, nullptr, FALSE);
}

std::vector<double> QuestionRounds(int nRounds)
{
    std::vector<double> ms;
    HDESK hDesk = CreateDesktopW(kDesktop, nullptr, nullptr, 0, GENERIC_ALL, nullptr);
    {
        AgentFolder folder;
        DesktopShell shell(kDesktop, ModuleFolder() + L"KVNXSTRES.dll", kTrayIconId);
        SimThread sim(SimThread::Options(OwnSession()));
        AgentProcess agent;
        shell.Run([&](FakeShell&) { agent = folder.Start(std::to_wstring(sim.Port()), kDesktop); });
        if (!sim.Handshaken(kE2eWait))
        {
            std::fprintf(stderr, "no handshake\n");
            return ms;
        }
        for (int i = 0; i < nRounds; ++i)
        {
            const Clock::time_point t0 = Clock::now();
            sim.Play({"permission Viewer bench asks"});
            HWND hDlg = nullptr;
            while (MsSince(t0) < kE2eWait && (hDlg == nullptr || !Painted(hDlg)))
            {
                if (hDlg == nullptr)
                    hDlg = kvui::WaitForWindow({L"#32770", L"Remote control request", 0, kDesktop, true});
                Sleep(1);
            }
            if (hDlg == nullptr)
                break;
            ms.push_back(MsSince(t0));
            kvui::ClickButton(hDlg, IDOK);
            sim.Play({"expect-permission allow"});
            sim.Settle(kE2eWait);
            kvui::WaitUntilGone(hDlg, kE2eWait);
        }
        sim.Play({"exit"});
        agent.Wait(kE2eWait);
        sim.Finish();
    }
    CloseDesktop(hDesk);
    return ms;
}

std::vector<double> SenderRounds(int nRounds)
{
    std::vector<double> ms;
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int cb = sizeof at;
    bind(s, reinterpret_cast<sockaddr*>(&at), sizeof at);
    getsockname(s, reinterpret_cast<sockaddr*>(&at), &cb);
    const DWORD dwTimeout = kE2eWait;
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&dwTimeout), sizeof dwTimeout);
    std::wstring line =
        L"\"" + ModuleFolder() + L"bench_permission_sender.exe\" " + std::to_wstring(ntohs(at.sin_port));
    for (int i = 0; i < nRounds; ++i)
    {
        STARTUPINFOW si = {};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi = {};
        const Clock::time_point t0 = Clock::now();
        if (!CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                            &si, &pi))
            break;
        char byte = 0;
        const bool bGot = recv(s, &byte, 1, 0) == 1;
        if (bGot)
            ms.push_back(MsSince(t0));
        WaitForSingleObject(pi.hProcess, kE2eWait);
        CloseHandle(pi.hThread);
        CloseHandle(pi.hProcess);
        if (!bGot)
            break;
    }
    closesocket(s);
    WSACleanup();
    return ms;
}

} // namespace

int main(int argc, char** argv)
{
    int nRounds = 10;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--rounds") == 0)
            nRounds = std::max(1, std::atoi(argv[i + 1]));

    const std::vector<double> sender = SenderRounds(nRounds);
    const std::vector<double> question = QuestionRounds(nRounds);
    if (sender.size() != static_cast<size_t>(nRounds) || question.size() != static_cast<size_t>(nRounds))
    {
        std::fprintf(stderr, "bench_permission: %zu of %d sender rounds, %zu of %d question rounds\n",
                     sender.size(), nRounds, question.size(), nRounds);
        return 1;
    }
    const double dSender = Median(sender), dQuestion = Median(question);
    std::printf("\npermission question, %d rounds (medians)\n", nRounds);
    std::printf("%-48s %-30s %s\n", "what", "figure", "ratio");
    char szFigure[32];
    std::snprintf(szFigure, sizeof szFigure, "%.1f ms", dQuestion);
    std::printf("%-48s %-30s %.1fx a minimal process start to its datagram (%.1f ms)\n",
                "request 70050 -> the question's first paint", szFigure, dQuestion / dSender, dSender);
    SummaryRow("permission request -> the question's first paint", dQuestion,
               "minimal process start -> its datagram", dSender, "ms");
    return 0;
}
