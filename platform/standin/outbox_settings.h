// Where the notification publisher keeps its outbox: the "outbox" key of the
// configuration file.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_SETTINGS_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_SETTINGS_H_

#include <string>

namespace standin {

// Where a host keeps its outbox unless the configuration says otherwise.
extern const char kDefaultOutboxPath[];

// From the configuration file as it stands: `path` is the outbox file, or empty
// for "outbox = none" (events wait in memory only). On failure returns false
// and says why in `error`.
bool readOutboxPath(std::string& path, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_SETTINGS_H_
