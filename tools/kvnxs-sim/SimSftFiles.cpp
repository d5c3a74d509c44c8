#include "SimSftFiles.h"

#include "SimText.h"

#if defined(_WIN32)
#include <windows.h>
#endif

#include <fstream>

namespace kvsim
{

#if defined(_WIN32)

namespace
{

std::wstring Wide(const std::string& utf8)
{
    const std::u16string text = Utf8ToUtf16(utf8);
    return std::wstring(text.begin(), text.end());
}

std::string Utf8(const wchar_t* text)
{
    const std::wstring w(text);
    return Utf16ToUtf8(std::u16string(w.begin(), w.end()));
}

} // namespace

struct SftDropEvent::Impl
{
    HANDLE hEvent = nullptr;
};

SftDropEvent::SftDropEvent() : m_impl(std::make_unique<Impl>()) {}

SftDropEvent::~SftDropEvent()
{
    if (m_impl->hEvent != nullptr)
        CloseHandle(m_impl->hEvent);
}

bool SftDropEvent::Create(const std::string& name, std::string& error)
{
    m_impl->hEvent = CreateEventW(nullptr, FALSE, FALSE, Wide(name).c_str());
    if (m_impl->hEvent == nullptr)
        error = "cannot make the event " + name + ": error " + std::to_string(GetLastError());
    return m_impl->hEvent != nullptr;
}

bool SftDropEvent::Signalled()
{
    return m_impl->hEvent != nullptr && WaitForSingleObject(m_impl->hEvent, 0) == WAIT_OBJECT_0;
}

bool ReadSftFileList(const std::string& path, std::vector<std::string>& files, std::string& error)
{
    char bom[2] = {};
    std::ifstream in(Wide(path).c_str(), std::ios::binary);
    if (!in.read(bom, 2) || bom[0] != '\xFF' || bom[1] != '\xFE')
    {
        error = "the file list " + path + " is missing or not UTF-16LE with its byte-order mark";
        return false;
    }
    const std::wstring file = Wide(path);
    const UINT uCount = GetPrivateProfileIntW(L"Files", L"Counter", 0, file.c_str());
    std::vector<wchar_t> value(32768);
    files.clear();
    for (UINT i = 1; i <= uCount; ++i)
    {
        const std::wstring key = L"File" + std::to_wstring(i);
        const DWORD cch = GetPrivateProfileStringW(L"Files", key.c_str(), L"", value.data(),
                                                   static_cast<DWORD>(value.size()), file.c_str());
        if (cch == 0)
        {
            error = "the file list " + path + " has Counter=" + std::to_string(uCount) + " but no " +
                    Utf8(key.c_str());
            return false;
        }
        files.push_back(Utf8(value.data()));
    }
    return true;
}

#else

struct SftDropEvent::Impl
{
};

SftDropEvent::SftDropEvent() : m_impl(std::make_unique<Impl>()) {}
SftDropEvent::~SftDropEvent() = default;

bool SftDropEvent::Create(const std::string& name, std::string& error)
{
    error = "the event " + name + " needs the Windows build of the simulator";
    return false;
}

bool SftDropEvent::Signalled()
{
    return false;
}

bool ReadSftFileList(const std::string& path, std::vector<std::string>&, std::string& error)
{
    error = "reading the file list " + path + " needs the Windows build of the simulator";
    return false;
}

#endif

} // namespace kvsim
