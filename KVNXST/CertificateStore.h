// Certificates in the user's registry: the pending one that a remote party presented (value "a c",
// written by another component), and the ones the user accepted, one binary value per display
// name. CRYPT32 parses every byte; nothing here looks inside a certificate.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <boost/shared_array.hpp>

#include <string>

// The bytes of a binary value that is neither empty nor larger than a certificate can sensibly be,
// with their number in cbData; empty (logged) otherwise.
boost::shared_array<BYTE> GetRegistryBinaryValue(HKEY hKey, const wchar_t* szName, DWORD& cbData);

// Makes the pending certificate the current one: the current user's first, then the first loaded
// user hive that holds one. False, with no current certificate, when none could be read.
bool GetCertFromACRegistry();
// The current certificate, null until GetCertFromACRegistry found one.
PCCERT_CONTEXT GetCurrentCertificate();
// The current certificate's simple display name; empty when it has none.
std::wstring GetCertificateName();

// The user accepted exactly these bytes under this certificate's name before.
bool IsCertInRegistry(PCCERT_CONTEXT pCert);
// Remembers the acceptance, replacing whatever certificate of the same name was accepted before.
bool SaveCertToRegistry(PCCERT_CONTEXT pCert);
// Adds the certificate to the store file "kvcrtst.bin" in the current folder.
bool SaveCertToLocalStore(PCCERT_CONTEXT pCert);
