// A file system held in memory, for fast tests. It behaves like the local
// one: the same open modes, errors and lock semantics (locks are tracked per
// file within the process), and files are shared between streams opened on
// them. URIs are compared in their normalised form.
#pragma once

#include "base/IFileSystem.h"
#include "base/Threads.h"

#include <map>

namespace zu {

class CMemoryFileSystem : public CBase, public IFileSystem {
public:
    CMemoryFileSystem();
    ~CMemoryFileSystem() override;

    P<IIOStream> openStream(const CURI& uri, int access, const CProps& options) override;
    bool exists(const CURI& uri) override;
    long long getFileSize(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;
    void renameFile(const CURI& from, const CURI& to) override;
    P<IBase> lockFile(const CURI& uri, IStreamBase::LockType type, bool wait, bool removeOnRelease) override;

    // Direct access to a file's bytes for tests (null when missing).
    P<TBuffer<unsigned char>> getFileData(const CURI& uri);
    // Makes every later open for writing fail, as on a read-only medium.
    void setReadOnly(bool readOnly);

    class CFile;
    class CLock;
    class CStream;

private:
    friend class CLock;
    String key(const CURI& uri) const;
    // Requires the mutex. The file at `key`, created when missing and
    // `create`; null when missing otherwise.
    P<CFile> findFile(const String& key, bool create);

    P<CMutex> mutex;
    std::map<String, P<CFile>> files;
    bool readOnly = false;
};

} // namespace zu
