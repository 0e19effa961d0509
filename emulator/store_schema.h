// The tables of the store.
#pragma once

namespace emulator {

// `edges` is what folder listings walk: children in the order of their age, so that a page starts
// where the last one ended whatever was added or deleted meanwhile. `items.parents` repeats the
// parents' ids because every listed file shows them.
inline constexpr char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS users(
  n INTEGER PRIMARY KEY, email TEXT NOT NULL UNIQUE COLLATE NOCASE, name TEXT NOT NULL,
  quota INTEGER NOT NULL, used INTEGER NOT NULL DEFAULT 0, root INTEGER NOT NULL DEFAULT 0,
  rootId TEXT NOT NULL DEFAULT '', permission TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS items(
  n INTEGER PRIMARY KEY, id TEXT NOT NULL, name TEXT NOT NULL, mime TEXT NOT NULL,
  owner INTEGER NOT NULL, drive INTEGER NOT NULL, parents TEXT NOT NULL,
  created INTEGER NOT NULL, modified INTEGER NOT NULL, modifier INTEGER NOT NULL,
  size INTEGER NOT NULL, blob INTEGER NOT NULL, md5 TEXT NOT NULL,
  version INTEGER NOT NULL, contentVersion INTEGER NOT NULL,
  trashed INTEGER NOT NULL, trashedTime INTEGER NOT NULL, starred INTEGER NOT NULL,
  shared INTEGER NOT NULL, root INTEGER NOT NULL, extra TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS itemsInTrash ON items(n) WHERE trashed <> 0;
CREATE TABLE IF NOT EXISTS edges(
  parent INTEGER NOT NULL, child INTEGER NOT NULL, PRIMARY KEY(parent, child)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS grants(
  item INTEGER NOT NULL, permission TEXT NOT NULL, user INTEGER NOT NULL, type TEXT NOT NULL,
  role TEXT NOT NULL, email TEXT NOT NULL, inherited INTEGER NOT NULL, time INTEGER NOT NULL,
  PRIMARY KEY(item, permission)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS grantsByUser ON grants(user, item);
CREATE TABLE IF NOT EXISTS drives(item INTEGER PRIMARY KEY, hidden INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS blobs(
  n INTEGER PRIMARY KEY AUTOINCREMENT, shares INTEGER NOT NULL, synthetic INTEGER NOT NULL,
  seed INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS changes(
  seq INTEGER PRIMARY KEY AUTOINCREMENT, user INTEGER NOT NULL, item TEXT NOT NULL,
  removed INTEGER NOT NULL, ofDrive INTEGER NOT NULL, drive INTEGER NOT NULL,
  time INTEGER NOT NULL, UNIQUE(user, item, ofDrive));
CREATE INDEX IF NOT EXISTS changesByUser ON changes(user, seq);
CREATE TABLE IF NOT EXISTS tokens(
  token TEXT PRIMARY KEY, kind TEXT NOT NULL, user INTEGER NOT NULL, expires INTEGER NOT NULL,
  family TEXT NOT NULL, detail TEXT NOT NULL) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS tokensByFamily ON tokens(family);
CREATE TABLE IF NOT EXISTS channels(
  id TEXT PRIMARY KEY, resource TEXT NOT NULL, user INTEGER NOT NULL, item TEXT NOT NULL,
  uri TEXT NOT NULL, address TEXT NOT NULL, token TEXT NOT NULL, expires INTEGER NOT NULL,
  messages INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
)sql";

// Apart, because filling a table of a million rows goes several times as fast without them.
inline constexpr char kMakeItemIndexes[] = R"sql(
CREATE UNIQUE INDEX IF NOT EXISTS itemsById ON items(id);
CREATE INDEX IF NOT EXISTS itemsByName ON items(name);
CREATE INDEX IF NOT EXISTS itemsByTime ON items(modified DESC);
)sql";
inline constexpr char kDropItemIndexes[] =
    "DROP INDEX itemsById; DROP INDEX itemsByName; DROP INDEX itemsByTime;";

}  // namespace emulator
