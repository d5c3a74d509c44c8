#include "ValidateCertDialog.h"

#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ValidateCertDialog));

bool ValidateCertDialog()
{
    KvLogBlock logBlock(logger, L"ValidateCertSession");
    // The certificate store and the dialog come with their own units; until then nothing can be
    // accepted, which is the rejection answer.
    LOG4CXX_WARN(logger, L"The certificate validation dialog is not built yet.");
    return false;
}
