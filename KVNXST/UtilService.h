// The remote-control service as the Service Control Manager sees it.
#pragma once

#include <windows.h>

// 1 when the service "kvnxsv" exists, also when only some kinds of access to it are allowed.
// Clears the last error.
int IsServiceInstalled();

// 1 when the service is running. The last error says why not (ERROR_SERVICE_DOES_NOT_EXIST when
// it is not installed), with ERROR_IO_PENDING reported as 0.
int IsServiceRunning();

// Asks the manager to start the service; returns the Windows error of the attempt (0: started).
DWORD StartLocalKvnxsvService();

// The port of the service's loopback link: the machine-wide REG_DWORD "Port" of the service's
// settings when it can be read as 4 bytes, else uiPort, else (uiPort 0xFFFFFFFF: none given) 6129.
unsigned int GetServicePort(unsigned int uiPort);

// A machine-wide REG_DWORD of the service's settings ("Port", "TrayIcon", "Permission Required").
// 1 with *pdwValue set when it exists as exactly 4 bytes of that type; a value of another type or
// size is logged and ignored.
int ReadServiceSettingDword(const wchar_t* szName, DWORD* pdwValue);
