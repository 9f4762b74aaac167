-- A queue index of format 2, which counted every time that an entry was taken: one message waits on
-- "dl", one of two recipients is on "dlout", has been taken once and put back twice.
PRAGMA journal_mode=WAL;
CREATE TABLE entry (id INTEGER PRIMARY KEY, sender TEXT NOT NULL, recipients INTEGER NOT NULL, bytes INTEGER NOT NULL, closed INTEGER NOT NULL);
CREATE TABLE envelope (entry INTEGER PRIMARY KEY, data BLOB NOT NULL);
CREATE TABLE chan (seq INTEGER PRIMARY KEY AUTOINCREMENT, channel TEXT NOT NULL, entry INTEGER NOT NULL, priority INTEGER NOT NULL, origin TEXT NOT NULL DEFAULT '', attempts INTEGER NOT NULL DEFAULT 0, due INTEGER NOT NULL DEFAULT 0, owner INTEGER);
CREATE UNIQUE INDEX chan_entry ON chan (entry, channel, origin);
CREATE INDEX chan_ready ON chan (channel, attempts, seq) WHERE owner IS NULL AND due = 0;
CREATE INDEX chan_due ON chan (channel, due) WHERE due > 0;
CREATE INDEX chan_owner ON chan (owner) WHERE owner IS NOT NULL;
CREATE TABLE counter (name TEXT PRIMARY KEY, value INTEGER NOT NULL);
INSERT INTO counter VALUES ('reader', 4), ('sync', 1);
CREATE TABLE delivery (entry INTEGER PRIMARY KEY, tries INTEGER NOT NULL DEFAULT 0, problem TEXT NOT NULL DEFAULT '', states BLOB NOT NULL);
CREATE TABLE answer (entry INTEGER NOT NULL, recipient INTEGER NOT NULL, text TEXT NOT NULL, PRIMARY KEY (entry, recipient)) WITHOUT ROWID;
INSERT INTO entry VALUES (1100000001, 'anna@example.com', 2, 5, 1100000001);
INSERT INTO entry VALUES (1100000002, 'anna@example.com', 2, 6, 1100000002);
INSERT INTO envelope VALUES (1100000001, x'010000000000000000010000000200000010616E6E61406578616D706C652E636F6D0000000000000000000002646C1867617264656E406C697374732E6578616D706C652E6F726700000000000002646C0A6265727440782E6F726700000000000002646C');
INSERT INTO envelope SELECT 1100000002, data FROM envelope;
INSERT INTO chan (channel, entry, priority) VALUES ('dl', 1100000001, 255);
INSERT INTO chan (channel, entry, priority, attempts) VALUES ('dlout', 1100000002, 0, 1);
INSERT INTO delivery VALUES (1100000002, 2, '450 later', x'0000');
PRAGMA application_id=0x444c5131;
PRAGMA user_version=2;
