// Opening the files the stand-ins read or write on behalf of a possibly
// privileged engine without being led astray: never through a symbolic link,
// never blocking on a FIFO, never handed to a program the engine starts, and
// judged on the descriptor opened rather than on a path that may change.
#ifndef KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_FILE_H_
#define KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_FILE_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace standin {

// Opens `path` with `flags` plus O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK (`mode`
// when it is made) and checks with fstat that it is a regular file. The
// descriptor, or -1 with why in `error` (naming `what` and `path`).
int openRegularFile(const std::string& path, int flags, mode_t mode, const std::string& what, std::string& error);

// Reads all of `path`, which must be a regular file of at most `maxBytes`,
// into `text`, opened as openRegularFile() does. With `secret`, the opened
// file must also be owned by this process's effective user or root and give
// its group and others no access. False, with why in `error` (naming `what`
// and `path`, and what to do), when it cannot be read or is refused.
bool readCheckedFile(const std::string& path, const std::string& what, size_t maxBytes, bool secret, std::string& text,
                     std::string& error);

// The largest secret the stand-ins read: a password or a private key.
const size_t kLargestSecretFile = 64 * 1024;

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_FILE_H_
