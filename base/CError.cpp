#include "base/CError.h"

namespace zu {

CProps& CProps::set(const String& name, const String& value)
{
    values[name] = value;
    return *this;
}

String CProps::get(const String& name) const
{
    auto it = values.find(name);
    return it == values.end() ? String() : it->second;
}

void CProps::merge(const CProps& other)
{
    for (const auto& kv : other) values[kv.first] = kv.second;
}

CError::CError(const String& message, const String& domain, long long code, const CProps& props,
               const std::exception* inner)
    : message(message), domain(domain), code(code), props(props), whatText(message.toUTF8())
{
    if (inner) {
        if (const auto* error = dynamic_cast<const CError*>(inner))
            cause.reset(error->clone());
        else
            cause.reset(new CError(String(inner->what())));
    }
}

CError::CError(const CError& other)
    : std::exception(other), message(other.message), domain(other.domain), code(other.code), props(other.props),
      cause(other.cause ? other.cause->clone() : nullptr), whatText(other.whatText)
{
}

CError& CError::operator=(const CError& other)
{
    if (this != &other) {
        message = other.message;
        domain = other.domain;
        code = other.code;
        props = other.props;
        cause.reset(other.cause ? other.cause->clone() : nullptr);
        whatText = other.whatText;
    }
    return *this;
}

CError& CError::setProp(const String& name, const String& value)
{
    props.set(name, value);
    return *this;
}

void CError::setMessage(const String& text)
{
    message = text;
    whatText = text.toUTF8();
}

String CError::toString() const
{
    String out = message;
    for (const auto& kv : props) out += " " + kv.first + "=" + kv.second;
    if (cause) out += " <- " + cause->toString();
    return out;
}

CInvalidArgError::CInvalidArgError(const String& where, const String& detail, const CProps& props)
    : CError("Invalid argument passed to '" + where + "': " + detail + ".", String(), -1, props), where(where)
{
}

CBadPathError::CBadPathError(const String& path, const String& reason)
    : CError(reason.empty() ? "Invalid path: '" + path + "'." : "Invalid path: '" + path + "' (" + reason + ").",
             String("Path"), -1, CProps().set("path", path))
{
}

CFileSystemError::CFileSystemError(int problem, const String& message, const CProps& props,
                                   const std::exception* inner)
    : CError(message, String("FileSystem"), problem, props, inner)
{
    setProp("fileSysProblem", zu::toString(problem));
}

CLockFileError::CLockFileError(const String& message, const CProps& props, const std::exception* inner)
    : CFileSystemError(problemLocked, message, props, inner)
{
}

} // namespace zu
