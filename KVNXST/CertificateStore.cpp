#include "CertificateStore.h"

#include "KvHandles.h"
#include "KvLogging.h"

#include <cwchar>

// Part of the certificate check: it logs with the dialog.
static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ValidateCertDialog));

namespace
{

constexpr wchar_t kCertificatesKey[] = L"Software\\Kestrova Development\\Vexa Remote Control\\Crts";
constexpr wchar_t kPendingValue[] = L"a c";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
// Real certificates are a few kilobytes; anything near this is not one, and is not read.
constexpr DWORD kMaxBinaryValue = 1024 * 1024;

PCCERT_CONTEXT g_pCurrentCert = nullptr;

void SetCurrentCertificate(PCCERT_CONTEXT pCert)
{
    if (g_pCurrentCert != nullptr)
        CertFreeCertificateContext(g_pCurrentCert);
    g_pCurrentCert = pCert;
}

std::wstring NameOf(PCCERT_CONTEXT pCert)
{
    const DWORD cch = CertGetNameStringW(pCert, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, nullptr, 0);
    if (cch <= 1)
    {
        LOG4CXX_ERROR(logger, L"Unable to extract certificate simple display name.");
        return std::wstring();
    }
    std::wstring name(cch, L'\0');
    if (CertGetNameStringW(pCert, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, &name[0], cch) != cch)
    {
        LOG4CXX_ERROR(logger,
                      L"Unable to extract certificate simple display name (size of name string is known).");
        return std::wstring();
    }
    name.resize(cch - 1);
    return name;
}

// A certificate named like the pending value would be "accepted" by its own presence, and one
// without a name would land in the key's default value: neither can be remembered.
bool IsStorableName(const std::wstring& name)
{
    return !name.empty() && _wcsicmp(name.c_str(), kPendingValue) != 0;
}

// The certificate in a key's pending value, the current user's or another user's hive; null,
// logged, when there is none or it is not one.
PCCERT_CONTEXT ReadPendingCertificate(HKEY hKey, const wchar_t* szKey, bool bOtherUser)
{
    DWORD cbData = 0;
    const boost::shared_array<BYTE> data = GetRegistryBinaryValue(hKey, kPendingValue, cbData);
    if (bOtherUser)
        LOG4CXX_DEBUG(logger, L"Registry subkey 'a c' read (size " << cbData << L")");
    else
        LOG4CXX_DEBUG(logger, L"Certificate binary data is read from " << szKey << L", size is " << cbData);
    if (!data)
        return nullptr;
    PCCERT_CONTEXT pCert = CertCreateCertificateContext(kEncoding, data.get(), cbData);
    if (pCert == nullptr)
        LOG4CXX_ERROR(logger, L"Could not recreate certificate (Err "
                                  << static_cast<int>(GetLastError()) << L") from a_c "
                                  << (bOtherUser ? L"HKU " : L"") << L"registry (" << cbData << L").");
    return pCert;
}

// The other users' hives in turn, as far as they can be read.
PCCERT_CONTEXT ReadPendingCertificateOfAnyUser()
{
    LOG4CXX_DEBUG(logger, L"GetCertFromACRegistry from HKU started");
    KvRegKey hUsers;
    LONG nResult = RegOpenKeyExW(HKEY_USERS, nullptr, 0, KEY_READ, hUsers.Put());
    if (nResult != ERROR_SUCCESS)
    {
        LOG4CXX_ERROR(logger, L"Cannot open registry key HKEY_USERS. Error code: " << nResult);
        return nullptr;
    }
    LOG4CXX_DEBUG(logger, L"Registry key HKEY_USERS opened.");
    DWORD dwCount = 0;
    nResult = RegQueryInfoKeyW(hUsers.Get(), nullptr, nullptr, nullptr, &dwCount, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr, nullptr);
    if (nResult != ERROR_SUCCESS)
    {
        LOG4CXX_ERROR(logger, L"Cannot enlist any subitem. Error code: " << nResult);
        return nullptr;
    }
    LOG4CXX_DEBUG(logger, L"Registry key HKEY_USERS enlisted. Found '" << dwCount << L"' items.");
    for (DWORD i = 0; i < dwCount; ++i)
    {
        wchar_t szHive[MAX_PATH] = {};
        DWORD cchHive = MAX_PATH;
        nResult = RegEnumKeyExW(hUsers.Get(), i, szHive, &cchHive, nullptr, nullptr, nullptr, nullptr);
        if (nResult != ERROR_SUCCESS)
        {
            LOG4CXX_ERROR(logger, L"Cannot enlist '" << i << L"' subitem. Error code: " << nResult);
            continue;
        }
        wchar_t szPath[MAX_PATH] = {};
        _snwprintf_s(szPath, _TRUNCATE, L"%ls\\%ls", szHive, kCertificatesKey);
        KvRegKey hKey;
        nResult = RegOpenKeyExW(hUsers.Get(), szPath, 0, KEY_READ, hKey.Put());
        LOG4CXX_DEBUG(logger, L"Registry key '" << szPath << L"' open with result " << nResult);
        if (nResult != ERROR_SUCCESS)
            continue;
        PCCERT_CONTEXT pCert = ReadPendingCertificate(hKey.Get(), szPath, true);
        if (pCert != nullptr)
        {
            LOG4CXX_DEBUG(logger, L"GetCertFromACRegistry HKU returning true");
            return pCert;
        }
    }
    return nullptr;
}

} // namespace

boost::shared_array<BYTE> GetRegistryBinaryValue(HKEY hKey, const wchar_t* szName, DWORD& cbData)
{
    KvLogBlock logBlock(logger, L"GetRegistryBinaryValue");
    cbData = 0;
    DWORD dwType = REG_NONE;
    DWORD cbSize = 0;
    if (RegQueryValueExW(hKey, szName, nullptr, &dwType, nullptr, &cbSize) != ERROR_SUCCESS)
    {
        LOG4CXX_DEBUG(logger, L"Unable to find " << szName);
        return boost::shared_array<BYTE>();
    }
    if (cbSize == 0)
    {
        LOG4CXX_ERROR(logger, L"Registry binary value is empty.");
        return boost::shared_array<BYTE>();
    }
    if (dwType != REG_BINARY)
    {
        LOG4CXX_ERROR(logger, L"Requested value is not binary");
        return boost::shared_array<BYTE>();
    }
    if (cbSize > kMaxBinaryValue)
    {
        LOG4CXX_ERROR(logger, L"Registry binary value is too large (" << cbSize << L" bytes).");
        return boost::shared_array<BYTE>();
    }
    boost::shared_array<BYTE> data(new BYTE[cbSize]);
    // Whatever changed since the first question: the second read says how much it holds now.
    if (RegQueryValueExW(hKey, szName, nullptr, &dwType, data.get(), &cbSize) != ERROR_SUCCESS ||
        dwType != REG_BINARY || cbSize == 0)
    {
        LOG4CXX_ERROR(logger, L"Unable to find (size is known) " << szName);
        return boost::shared_array<BYTE>();
    }
    cbData = cbSize;
    return data;
}

bool GetCertFromACRegistry()
{
    KvLogBlock logBlock(logger, L"GetCertFromACRegistry");
    LOG4CXX_DEBUG(logger, L"GetCertFromACRegistry started");
    SetCurrentCertificate(nullptr);
    KvRegKey hKey;
    const LONG nResult = RegOpenKeyExW(HKEY_CURRENT_USER, kCertificatesKey, 0, KEY_READ, hKey.Put());
    LOG4CXX_DEBUG(logger, L"Registry key '" << kCertificatesKey << L"' open with result " << nResult);
    if (nResult == ERROR_SUCCESS)
    {
        PCCERT_CONTEXT pCert = ReadPendingCertificate(hKey.Get(), kCertificatesKey, false);
        if (pCert != nullptr)
        {
            SetCurrentCertificate(pCert);
            LOG4CXX_DEBUG(logger, L"GetCertFromACRegistry returning true");
            return true;
        }
    }
    SetCurrentCertificate(ReadPendingCertificateOfAnyUser());
    if (g_pCurrentCert != nullptr)
        return true;
    LOG4CXX_DEBUG(logger, L"GetCertFromACRegistry returning false");
    return false;
}

PCCERT_CONTEXT GetCurrentCertificate()
{
    return g_pCurrentCert;
}

std::wstring GetCertificateName()
{
    KvLogBlock logBlock(logger, L"GetCertificateName");
    if (g_pCurrentCert == nullptr)
    {
        LOG4CXX_ERROR(logger, L"Unable to extract certificate simple display name.");
        return std::wstring();
    }
    return NameOf(g_pCurrentCert);
}

bool IsCertInRegistry(PCCERT_CONTEXT pCert)
{
    KvLogBlock logBlock(logger, L"IsCertInRegistry");
    KvRegKey hKey;
    if (pCert == nullptr ||
        RegOpenKeyExW(HKEY_CURRENT_USER, kCertificatesKey, 0, KEY_READ, hKey.Put()) != ERROR_SUCCESS)
        return false;
    const std::wstring name = NameOf(pCert);
    LOG4CXX_DEBUG(logger, L"Certificate name is " << name);
    DWORD cbData = 0;
    const boost::shared_array<BYTE> data = IsStorableName(name)
                                               ? GetRegistryBinaryValue(hKey.Get(), name.c_str(), cbData)
                                               : boost::shared_array<BYTE>();
    const bool bFound =
        data && cbData == pCert->cbCertEncoded && memcmp(data.get(), pCert->pbCertEncoded, cbData) == 0;
    if (bFound)
        LOG4CXX_DEBUG(logger, L"IsCertInRegistry returned true.");
    else
        LOG4CXX_DEBUG(logger, L"IsCertInRegistry returned false.");
    return bFound;
}

bool SaveCertToRegistry(PCCERT_CONTEXT pCert)
{
    KvLogBlock logBlock(logger, L"SaveCertToRegistry");
    KvRegKey hKey;
    const LONG nResult =
        RegCreateKeyExW(HKEY_CURRENT_USER, kCertificatesKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                        KEY_ALL_ACCESS, nullptr, hKey.Put(), nullptr);
    if (nResult != ERROR_SUCCESS)
    {
        LOG4CXX_ERROR(logger,
                      L"Unable to store certificate (unable to create registry key), result =" << nResult);
        return false;
    }
    const std::wstring name = NameOf(pCert);
    if (!IsStorableName(name))
    {
        LOG4CXX_ERROR(logger,
                      L"Unable to store certificate, its name '" << name << L"' cannot name a value.");
        return false;
    }
    const LONG nSet =
        RegSetValueExW(hKey.Get(), name.c_str(), 0, REG_BINARY, pCert->pbCertEncoded, pCert->cbCertEncoded);
    if (nSet != ERROR_SUCCESS)
    {
        LOG4CXX_ERROR(logger, L"Unable to store certificate, result =" << nSet << L", last error ="
                                                                       << GetLastError());
        return false;
    }
    return true;
}

bool SaveCertToLocalStore(PCCERT_CONTEXT pCert)
{
    KvLogBlock logBlock(logger, L"SaveCertToLocalStore");
    constexpr wchar_t kStoreFile[] = L"kvcrtst.bin";
    KvKernelHandle hFile;
    HCERTSTORE hStore = CertOpenStore(CERT_STORE_PROV_FILENAME_W, kEncoding, 0, 0, kStoreFile);
    if (hStore == nullptr)
    {
        hStore = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
        if (hStore == nullptr)
        {
            LOG4CXX_ERROR(logger, L"Error opening new memory store.");
            return false;
        }
        hFile.Reset(CreateFileW(kStoreFile, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                nullptr));
        if (hFile.Get() == INVALID_HANDLE_VALUE)
        {
            hFile.Release();
            CertCloseStore(hStore, 0);
            LOG4CXX_ERROR(logger, L"Could not create certificate store on disk.");
            return false;
        }
    }
    const BOOL bAdded = CertAddCertificateContextToStore(hStore, pCert, CERT_STORE_ADD_USE_EXISTING, nullptr);
    if (!bAdded)
        LOG4CXX_ERROR(logger, L"Could not add the certificate to the memory store.");
    // An existing file was opened through the store alone: there is no handle to save to, so it
    // keeps what it held.
    if (!hFile ||
        !CertSaveStore(hStore, 0, CERT_STORE_SAVE_AS_STORE, CERT_STORE_SAVE_TO_FILE, hFile.Get(), 0))
        LOG4CXX_ERROR(logger, L"Could not save the memory store to disk.");
    CertCloseStore(hStore, CERT_CLOSE_STORE_CHECK_FLAG);
    return bAdded != FALSE;
}
