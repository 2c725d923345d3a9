// Where the notification publisher keeps its outbox and how it syncs it: the
// "outbox" and "outbox_sync" keys of the configuration file.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_OUTBOX_SETTINGS_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_OUTBOX_SETTINGS_H_

#include <string>

namespace standin {

// Where a host keeps its outbox unless the configuration says otherwise.
extern const char kDefaultOutboxPath[];

// From the configuration file as it stands: `path` is the outbox file, or empty
// for "outbox = none" (events wait in memory only). On failure returns false
// and says why in `error`.
bool readOutboxPath(std::string& path, std::string& error);

// From the configuration file as it stands: `full` is true for "outbox_sync =
// full" (every accepted event on the disk before it is accepted), false for
// "normal" or no key. On any other value returns false, says why in `error`
// and sets `full`, the safer reading.
bool readOutboxSync(bool& full, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_OUTBOX_SETTINGS_H_
