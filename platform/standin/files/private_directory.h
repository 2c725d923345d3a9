// The directory that holds files private to the engine (the alert outbox):
// made 0700 whatever the umask, and refused when another user could put
// files in it or replace what is there.
#ifndef KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_DIRECTORY_H_
#define KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_DIRECTORY_H_

#include <string>

namespace standin {

// Makes `directory` and any missing parent with mode 0700, then checks the
// directory itself: owned by this process's effective user or root, and
// writable by neither its group nor others. False, with one sentence in
// `error` naming the directory and what to do, when it cannot be made or is
// refused.
bool usePrivateDirectory(const std::string& directory, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_DIRECTORY_H_
