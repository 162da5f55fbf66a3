// Turning libcrypto failures into the library's errors.
#pragma once

#include "base/CError.h"

namespace pell {

// Domain of the errors that pell raises itself.
extern const char* const errorDomain;

// Throws zu::CError with `message` (code -1, domain "pell") and `props`, plus
// the text of libcrypto's most recent error as property "openssl" when there
// is one. Empties this thread's libcrypto error queue, so that a stale entry
// is never reported with a later, unrelated failure.
[[noreturn]] void throwOpenSSLError(const zu::String& message, zu::CProps props = zu::CProps());

} // namespace pell
