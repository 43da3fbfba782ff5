// A directory that is being listed.
#pragma once

#include <dirent.h>
#include <memory>
#include <string>
#include <sys/stat.h>

// Yields the names in a directory, in the system's order, and knows whether a reader that is made
// later would yield the same. No locking: one listing uses it at a time.
class CFolderReader {
public:
    // Opens the directory; errno tells why if that fails. Closed with the object.
    explicit CFolderReader(const char* pcPath);

    bool IsOpen() const { return m_pStream != nullptr; }
    const std::string& GetPath() const { return m_sPath; }

    // The next name, "." and ".." included; null at the end. Good until the next call.
    const char* ReadName();

    // True if the directory was at rest when it was opened, so that its times tell of every change
    // since: the clock that they are taken from stands still for a while between two steps.
    bool IsReusable() const { return m_bReusable; }

    // True if the path still leads to the directory that was opened and nothing changed in it.
    bool IsUnchanged() const;

private:
    struct CloseStream {
        void operator()(DIR* pStream) const { closedir(pStream); }
    };

    std::string m_sPath;
    std::unique_ptr<DIR, CloseStream> m_pStream;
    struct stat m_Opened = {};  // the directory before its first name was read
    bool m_bReusable = false;
};
