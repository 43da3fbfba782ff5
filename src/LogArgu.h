// The label of an operation.
#pragma once

// Travels beside the CRuntimeParam down a call chain; pcName is printed as the leading "[%s]" of
// every line that the operation and whatever it calls write.
struct LogArgu {
    const char* pcName = "";  // not owned; a literal such as "NfsMain.StartServer"
};
