-- An archive index of format 2, before it was remembered what a posting was made from: two postings on the pages,
-- 3 left out, 4 not read yet.
PRAGMA journal_mode=WAL;
BEGIN TRANSACTION;
CREATE TABLE meta (name TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
INSERT INTO meta VALUES('description','Beans & frost');
INSERT INTO meta VALUES('layout','51ff2aaa1afb175f709f589352053326f926168537e0e3eeb9afc1c7ceb78a8e');
INSERT INTO meta VALUES('rebuild','');
INSERT INTO meta VALUES('salt','ff0431890675595393a939ec24ec5845');
INSERT INTO meta VALUES('title','Garden talk');
INSERT INTO meta VALUES('url','https://a.example/garden/');
CREATE TABLE incoming (
  id INTEGER PRIMARY KEY, stamp INTEGER NOT NULL, failed INTEGER NOT NULL DEFAULT 0,
  cause TEXT NOT NULL DEFAULT '', failed_at INTEGER NOT NULL DEFAULT 0);
INSERT INTO incoming VALUES(3,1100000000000000,1,'it is empty',1100000000),(4,1100000000000001,0,'',0);
CREATE TABLE posting (
  id INTEGER PRIMARY KEY, sort TEXT NOT NULL, slug TEXT NOT NULL UNIQUE, message_id TEXT NOT NULL,
  date INTEGER NOT NULL, month INTEGER NOT NULL, subject TEXT NOT NULL, name TEXT NOT NULL,
  author INTEGER NOT NULL, thread INTEGER NOT NULL, parent INTEGER, shard INTEGER NOT NULL,
  attachments INTEGER NOT NULL, excerpt TEXT NOT NULL, words TEXT NOT NULL);
INSERT INTO posting VALUES(1,'010992678000000000001','15518b10f6c5d78571e3','m1@example.com',1099267800,200411,'Roses','Anna Bell',1,1,NULL,1,0,'The roses are out.','the roses are out');
INSERT INTO posting VALUES(2,'010992684000000000002','e9c8728e53600a6fa3bb','m2@example.com',1099268400,200411,'Re: Roses','Anna Bell',1,1,1,1,0,'The roses are out.','the roses are out');
CREATE TABLE thread (
  id INTEGER PRIMARY KEY, slug TEXT NOT NULL, sort TEXT NOT NULL, month INTEGER NOT NULL,
  subject TEXT NOT NULL, base TEXT NOT NULL, count INTEGER NOT NULL, last TEXT NOT NULL);
INSERT INTO thread VALUES(1,'15518b10f6c5d78571e3','010992678000000000001-1',200411,'Roses','roses',2,'010992684000000000002');
CREATE TABLE author (
  id INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE, slug TEXT NOT NULL UNIQUE, name TEXT NOT NULL,
  sort TEXT NOT NULL, count INTEGER NOT NULL);
INSERT INTO author VALUES(1,'anna@example.com','79e0154a96b02ba62a48','Anna Bell','anna bell	79e0154a96b02ba62a48',2);
CREATE TABLE address (hash TEXT NOT NULL, number INTEGER NOT NULL, id INTEGER NOT NULL,
  PRIMARY KEY (hash, number)) WITHOUT ROWID;
INSERT INTO address VALUES('15518b10f6c5d78571e3',1,1);
INSERT INTO address VALUES('e9c8728e53600a6fa3bb',1,2);
CREATE TABLE wanted (message_id TEXT NOT NULL, id INTEGER NOT NULL, PRIMARY KEY (message_id, id)) WITHOUT ROWID;
CREATE TABLE leaf (kind INTEGER NOT NULL, value INTEGER NOT NULL, low TEXT NOT NULL, page INTEGER NOT NULL,
  count INTEGER NOT NULL, PRIMARY KEY (kind, value, low)) WITHOUT ROWID;
INSERT INTO leaf VALUES(2,1,'',1,2);
INSERT INTO leaf VALUES(3,200411,'',1,2);
INSERT INTO leaf VALUES(4,200411,'',1,1);
INSERT INTO leaf VALUES(5,1,'',1,2);
INSERT INTO leaf VALUES(6,0,'',1,1);
CREATE TABLE shard (number INTEGER PRIMARY KEY, count INTEGER NOT NULL);
INSERT INTO shard VALUES(1,2);
CREATE TABLE dirty (kind INTEGER NOT NULL, value INTEGER NOT NULL, page INTEGER NOT NULL,
  PRIMARY KEY (kind, value, page)) WITHOUT ROWID;
CREATE TABLE gone (path TEXT PRIMARY KEY) WITHOUT ROWID;
CREATE UNIQUE INDEX posting_sort ON posting (sort);
CREATE INDEX posting_month ON posting (month, sort);
CREATE INDEX posting_thread ON posting (thread, sort);
CREATE INDEX posting_author ON posting (author, sort);
CREATE INDEX posting_message ON posting (message_id, id);
CREATE INDEX posting_parent ON posting (parent, sort);
CREATE INDEX posting_shard ON posting (shard, id);
CREATE INDEX thread_month ON thread (month, sort);
CREATE INDEX thread_last ON thread (last);
CREATE INDEX thread_base ON thread (base, last);
CREATE UNIQUE INDEX author_sort ON author (sort);
CREATE INDEX address_id ON address (id);
CREATE INDEX wanted_id ON wanted (id);
CREATE UNIQUE INDEX leaf_page ON leaf (kind, value, page);
COMMIT;
PRAGMA user_version=2;
