#include "base/CIOError.h"

#include <array>

namespace zu {

const String& CIOError::getStandardMessage(long long code)
{
    // Built once; C++11 guarantees a thread-safe initialisation.
    static const std::array<String, 14> messages = {
        String("Unknown I/O error."),
        String("Error opening file or stream."),
        String("Error reading data."),
        String("Error writing data."),
        String("Unexpected end of data."),
        String("The data is invalid or corrupted."),
        String("Unsupported or invalid data version."),
        String("Error seeking to new position."),
        String("Error moving a file."),
        String("Error deleting a file."),
        String("Error: stream has been closed."),
        String("Error: stream position is not aligned correctly."),
        String("Error: buffer passed to stream is not aligned correctly."),
        String("Error changing the size of a file."),
    };
    static const String none;
    if (code < 0 || code >= static_cast<long long>(messages.size())) return none;
    return messages[static_cast<std::size_t>(code)];
}

CIOError::CIOError(long long code, const String& message, const CProps& props, const std::exception* inner)
    : CError(message.empty() ? getStandardMessage(code) : message, String("IO"), code, props, inner)
{
}

} // namespace zu
