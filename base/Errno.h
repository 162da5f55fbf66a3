// The errno value that best stands for an error of the CError family, for
// callers that answer through a POSIX interface (a block-device server, a
// FUSE file system).
#pragma once

#include <exception>

namespace zu {

// The operating system's own error number where the error or one of its
// causes carries one (property "osError"); otherwise a value chosen from
// the error's class and code: ENOSPC for a full disk, EBUSY for a held
// lock, EINVAL for bad arguments, ENOMEM for a failed allocation, EIO for
// corrupt data and anything else.
int errnoOf(const std::exception& error);

} // namespace zu
