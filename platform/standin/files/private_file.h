// Opening the files the stand-ins read or write on behalf of a possibly
// privileged engine without being led astray: never through a symbolic link,
// never blocking on a FIFO, never handed to a program the engine starts, and
// judged on the descriptor opened rather than on a path that may change.
#ifndef KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_FILE_H_
#define KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_FILE_H_

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace standin {

// Opens `name` relative to the directory `directoryFd` (AT_FDCWD: `name` is
// a path) with `flags` plus O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK (`mode` when
// it is made) and checks with fstat that it is a regular file. The
// descriptor, or -1 with why in `error` (naming `what` and `shownPath`).
int openRegularFileAt(int directoryFd, const std::string& name, const std::string& shownPath, int flags, mode_t mode,
                      const std::string& what, std::string& error);

// openRegularFileAt() for a path.
inline int openRegularFile(const std::string& path, int flags, mode_t mode, const std::string& what,
                           std::string& error) {
  return openRegularFileAt(AT_FDCWD, path, path, flags, mode, what, error);
}

// Opens, as openRegularFileAt() does, a file that the stand-ins write on the
// engine's behalf (the log, the outbox's files), and refuses it unless it is
// the engine's own: owned by this process's effective user, and with one
// link, so that nothing another user planted, nor a second name of another
// file, is written through. The descriptor, or -1 with one sentence in
// `error` naming `what` and `shownPath` and what to do.
int openOwnFileAt(int directoryFd, const std::string& name, const std::string& shownPath, int flags, mode_t mode,
                  const std::string& what, std::string& error);

// Why a file opened as `status` is not the engine's own to write (see
// openOwnFileAt), as one sentence naming `what` and `shownPath`; empty when
// it is.
std::string notOwnFileProblem(const struct stat& status, const std::string& what, const std::string& shownPath);

// Reads all of `path`, which must be a regular file of at most `maxBytes`,
// into `text`, opened as openRegularFile() does. With `secret`, the opened
// file must also be owned by this process's effective user or root and give
// its group and others no access. False, with why in `error` (naming `what`
// and `path`, and what to do), when it cannot be read or is refused.
bool readCheckedFile(const std::string& path, const std::string& what, size_t maxBytes, bool secret, std::string& text,
                     std::string& error);

// The largest secret the stand-ins read: a password or a private key.
const size_t kLargestSecretFile = 64 * 1024;

// "0640": the permission bits of `mode`, as chmod takes them.
std::string modeText(mode_t mode);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_FILE_H_
