// Input/output failures, with the codes every stream and format reader uses.
#pragma once

#include "base/CError.h"

namespace zu {

class CIOError : public CError {
public:
    // Stored in error reports and tests; never renumber.
    enum Code {
        codeUnknown = 0,
        codeOpen = 1,
        codeRead = 2,
        codeWrite = 3,
        codeEndOfData = 4,
        codeInvalidData = 5,
        codeUnsupportedVersion = 6,
        codeSeek = 7,
        codeMove = 8,
        codeDelete = 9,
        codeClosed = 10,
        codeMisalignedPosition = 11,
        codeMisalignedBuffer = 12,
        codeResize = 13,
    };

    // An empty message is replaced by the code's standard message.
    explicit CIOError(long long code, const String& message = String(), const CProps& props = CProps(),
                      const std::exception* inner = nullptr);

    // The standard message of a code; empty for codes outside 0..13.
    static const String& getStandardMessage(long long code);

    ZU_ERROR_CLONE(CIOError)
};

} // namespace zu
