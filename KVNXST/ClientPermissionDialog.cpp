#include "ClientPermissionDialog.h"

#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ClientPermissionDialog));

int CreatePermissionDialog(int nPort, int nAfType)
{
    KvLogBlock logBlock(logger, L"CreatePermissionDialog");
    LOG4CXX_INFO(logger, L"nPort=" << nPort << L" nAfType=" << nAfType);
    // The dialog and its exchange with the service come with their own unit; until then no
    // question can be asked, which is the "not shown" answer.
    LOG4CXX_WARN(logger, L"The permission dialog is not built yet.");
    return 0;
}

int ExecutePermission(int nPort, int nAfType)
{
    KvLogBlock logBlock(logger, L"ExecutePermission");
    LOG4CXX_INFO(logger, L"nPort=" << nPort << L" nAfType=" << nAfType);
    // The child process that asks the question comes with the dialog; until then nobody answers
    // and the service's own time-out decides.
    LOG4CXX_WARN(logger, L"The permission child process is not built yet.");
    return 0;
}
