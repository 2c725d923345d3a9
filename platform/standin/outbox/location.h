// Where an outbox lives: its directory, checked once and kept open, and the
// file's name in it. The outbox, its companions and the guest files beside
// it are all reached through that one directory.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_LOCATION_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_LOCATION_H_

#include <memory>
#include <string>

#include "platform/standin/files/private_directory.h"

namespace standin {

struct OutboxLocation {
  std::shared_ptr<const PrivateDirectory> directory;
  std::string name;  // of the outbox file in `directory`

  // The outbox file's absolute path, for messages.
  std::string path() const { return directory->shownPath(name); }
};

// Locates the outbox file `path` names, first made absolute in place against
// the working directory (a bare name too), its directory made when missing
// and checked (PrivateDirectory). False, with one sentence in `error` that
// names the directory and what to do, when the directory is refused.
bool locateOutbox(std::string& path, OutboxLocation& location, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_LOCATION_H_
