#include "crypto/OpenSSLError.h"

#include <openssl/err.h>

namespace pell {

const char* const errorDomain = "pell";

void throwOpenSSLError(const zu::String& message, zu::CProps props)
{
    unsigned long code = ERR_peek_last_error();
    if (code != 0) {
        // ERR_error_string_n asks for at least 120 bytes; longer texts are cut.
        char text[256];
        ERR_error_string_n(code, text, sizeof text);
        props.set("openssl", text);
    }
    ERR_clear_error();
    throw zu::CError(message, zu::String(errorDomain), -1, props);
}

} // namespace pell
