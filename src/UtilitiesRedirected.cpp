// Redirected files and the self-test: the host can call these, but nothing stands behind them yet.
// No file is ever redirected, so an open yields none and the rest finds none.
#include "Utilities.h"

CRedirectedFile* CUtilities::OpenRedirectedFile(CRuntimeParam*, const char*, long long, bool, int,
                                                int)
{
    return nullptr;
}

void CUtilities::CloseRedirectedFile(CRuntimeParam*, const char*) {}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam*, const char*) {}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam*) {}

bool CUtilities::AddRedirectedFileSegment(CRuntimeParam*, const char*, const char*, long long,
                                          long long, long long, char*)
{
    return false;
}

void CUtilities::ExportRedirectedFile(CRuntimeParam*, const char*, const char*) {}

void CUtilities::ExportRedirectedFileInfo(CRuntimeParam*, const char*, const char*, bool) {}

void CUtilities::RunTestMode(CRuntimeParam*, const char*, long long) {}
