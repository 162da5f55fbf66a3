// The error family. Every failure of the libraries is thrown as a CError (or
// a subclass): a message in the system's own words, a domain, a numeric code,
// named properties and optionally the error that caused it.
#pragma once

#include "base/CProps.h"
#include "base/String.h"

#include <exception>
#include <memory>
#include <string>

namespace zu {

class CError : public std::exception {
public:
    // `inner`, when given, is copied as the cause (a std::exception that is
    // not a CError is kept as a CError with its what() text).
    explicit CError(const String& message, const String& domain = String(), long long code = -1,
                    const CProps& props = CProps(), const std::exception* inner = nullptr);
    CError(const CError& other);
    CError& operator=(const CError& other);
    ~CError() override = default;

    const char* what() const noexcept override { return whatText.c_str(); }
    const String& getMessage() const { return message; }
    const String& getDomain() const { return domain; }
    long long getCode() const { return code; }
    const CProps& getProps() const { return props; }
    String getProp(const String& name) const { return props.get(name); }
    CError& setProp(const String& name, const String& value);
    const CError* getCause() const { return cause.get(); }

    // A heap copy of the most-derived type.
    virtual CError* clone() const { return new CError(*this); }
    // Throws a copy of the most-derived type.
    [[noreturn]] virtual void throwClone() const { throw CError(*this); }

    // One line: the message, then the properties as name=value, then the
    // causes, each after " <- ".
    String toString() const;

protected:
    void setMessage(const String& text);

private:
    String message;
    String domain;
    long long code;
    CProps props;
    std::unique_ptr<CError> cause;
    std::string whatText;
};

#define ZU_ERROR_CLONE(Class)                                          \
    CError* clone() const override { return new Class(*this); }        \
    [[noreturn]] void throwClone() const override { throw Class(*this); }

// A caller passed an argument that the callee cannot use. The message reads
// "Invalid argument passed to '<where>': <detail>.".
class CInvalidArgError : public CError {
public:
    CInvalidArgError(const String& where, const String& detail, const CProps& props = CProps());
    const String& getWhere() const { return where; }
    ZU_ERROR_CLONE(CInvalidArgError)

private:
    String where;
};

// A path that cannot be valid on its platform (bad characters, a drive
// letter in the wrong place, an unterminated UNC root).
class CBadPathError : public CError {
public:
    CBadPathError(const String& path, const String& reason = String());
    ZU_ERROR_CLONE(CBadPathError)
};

// A failure reported by a file system. The problem code is both the error's
// code and its "fileSysProblem" property.
class CFileSystemError : public CError {
public:
    enum Problem {
        problemUnknown = 0,
        problemNotFound = 1,
        problemAlreadyExists = 2,
        problemAccessDenied = 3,
        problemIsDirectory = 4,
        problemNoSpace = 5,
        problemNotSupported = 6,
        problemLocked = 7,
        problemInvalidName = 8,
        problemIO = 9,
        // A FIFO, socket, device or directory where a regular file is needed.
        problemNotRegularFile = 10,
    };
    CFileSystemError(int problem, const String& message, const CProps& props = CProps(),
                     const std::exception* inner = nullptr);
    int getProblem() const { return static_cast<int>(getCode()); }
    ZU_ERROR_CLONE(CFileSystemError)
};

// A lock file is held by someone else (problem code problemLocked).
class CLockFileError : public CFileSystemError {
public:
    explicit CLockFileError(const String& message, const CProps& props = CProps(),
                            const std::exception* inner = nullptr);
    ZU_ERROR_CLONE(CLockFileError)
};

} // namespace zu
