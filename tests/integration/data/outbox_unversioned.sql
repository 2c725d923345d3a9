-- An outbox as the release before this one left it: no schema version, no
-- time raised, three events of the numbered series waiting.
PRAGMA journal_mode = WAL;
CREATE TABLE events (id INTEGER PRIMARY KEY, payload BLOB NOT NULL);
INSERT INTO events (payload) VALUES
  ('{"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine","priority":"LOW","severity":"INFO","messageKey":"eventlog.omra.ksu.cdp.fullsync.done","attributes":{"seq":"1"}}'),
  ('{"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine","priority":"LOW","severity":"INFO","messageKey":"eventlog.omra.ksu.cdp.fullsync.done","attributes":{"seq":"2"}}'),
  ('{"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine","priority":"LOW","severity":"INFO","messageKey":"eventlog.omra.ksu.cdp.fullsync.done","attributes":{"seq":"3"}}');
