#include "base/Errno.h"

#include "base/CIOError.h"
#include "base/Parse.h"

#include <cerrno>
#include <new>

namespace zu {

namespace {

int errnoOfProblem(int problem)
{
    switch (problem) {
    case CFileSystemError::problemNotFound: return ENOENT;
    case CFileSystemError::problemAlreadyExists: return EEXIST;
    case CFileSystemError::problemAccessDenied: return EACCES;
    case CFileSystemError::problemIsDirectory: return EISDIR;
    case CFileSystemError::problemNoSpace: return ENOSPC;
    case CFileSystemError::problemNotSupported: return EOPNOTSUPP;
    case CFileSystemError::problemLocked: return EBUSY;
    case CFileSystemError::problemInvalidName: return EINVAL;
    default: return EIO;
    }
}

int errnoOfCode(const CError& error)
{
    if (const auto* fsError = dynamic_cast<const CFileSystemError*>(&error)) return errnoOfProblem(fsError->getProblem());
    if (dynamic_cast<const CInvalidArgError*>(&error)) return EINVAL;
    if (dynamic_cast<const CIOError*>(&error)) {
        switch (error.getCode()) {
        case CIOError::codeSeek:
        case CIOError::codeMisalignedPosition:
        case CIOError::codeMisalignedBuffer: return EINVAL;
        case CIOError::codeClosed: return EBADF;
        default: return EIO;
        }
    }
    return EIO;
}

} // namespace

int errnoOf(const std::exception& error)
{
    if (dynamic_cast<const std::bad_alloc*>(&error)) return ENOMEM;
    const auto* zuError = dynamic_cast<const CError*>(&error);
    if (!zuError) return EIO;
    for (const CError* e = zuError; e; e = e->getCause()) {
        if (!e->getProps().has("osError")) continue;
        try {
            long long number = parseInt64(e->getProp("osError"), false);
            if (number > 0 && number < 4096) return static_cast<int>(number);
        } catch (const CError&) {
            // Not a number: fall back on the class.
        }
    }
    return errnoOfCode(*zuError);
}

} // namespace zu
