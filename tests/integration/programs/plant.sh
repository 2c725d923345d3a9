#!/bin/sh
# Plants a database of the outbox's format, as another process or user would
# leave one beside an outbox, private to whoever runs this:
#
#   plant.sh forged FILE TEXT             one event whose payload is TEXT
#   plant.sh behind FILE BYTES FIRST LAST  an event of BYTES bytes, then the
#                                          numbered events FIRST..LAST
set -eu
schema='CREATE TABLE events (id INTEGER PRIMARY KEY, payload BLOB NOT NULL, raised INTEGER NOT NULL DEFAULT 0);
PRAGMA user_version = 1;'
case $1 in
  forged) sqlite3 "$2" "$schema INSERT INTO events (payload) VALUES (CAST('$3' AS BLOB));" ;;
  behind)
    sqlite3 "$2" "$schema INSERT INTO events (payload) VALUES (zeroblob($3));
      WITH RECURSIVE n(i) AS (SELECT $4 UNION ALL SELECT i + 1 FROM n WHERE i < $5)
      INSERT INTO events (payload) SELECT CAST('{\"attributes\":{\"seq\":\"' || i || '\"}}' AS BLOB) FROM n;" ;;
  *) echo "usage: plant.sh forged FILE TEXT | plant.sh behind FILE BYTES FIRST LAST" >&2; exit 2 ;;
esac
chmod 600 "$2"
